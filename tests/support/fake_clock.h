#pragma once

#include "support/import_patch.h"

#include <windows.h>

#include <vector>

namespace test_support {

// Replaces one module's GetTickCount64 and Sleep: Sleep returns at once, and time passes by sleeping only.
// Only one may exist at a time.
class fake_clock {
public:
    explicit fake_clock(HMODULE module)
        : clock_{module, "GetTickCount64", &tick_count}, sleep_{module, "Sleep", &sleep}
    {
        now_ = 0;
        sleeps_.clear();
    }

    // The time since the clock was created and every sleep since then, in milliseconds.
    [[nodiscard]] ULONGLONG now() const noexcept { return now_; }

    [[nodiscard]] const std::vector<DWORD>& sleeps() const noexcept { return sleeps_; }

    static void advance(DWORD milliseconds) { now_ += milliseconds; }

private:
    static ULONGLONG WINAPI tick_count() { return 0xFFFFFF00 + now_; } // soon more than 32 bits

    static void WINAPI sleep(DWORD milliseconds)
    {
        advance(milliseconds);
        sleeps_.push_back(milliseconds);
    }

    inline static ULONGLONG now_ = 0;
    inline static std::vector<DWORD> sleeps_;

    import_patch<decltype(GetTickCount64)> clock_;
    import_patch<decltype(Sleep)> sleep_;
};

} // namespace test_support
