#pragma once

#include "support/import_patch.h"

#include <windows.h>

#include <vector>

namespace test_support {

// A clock for one module (its GetTickCount64) that runs only while the module sleeps (its Sleep, which
// returns at once). One can live at a time.
class fake_clock {
public:
    explicit fake_clock(HMODULE module)
        : clock_{module, "GetTickCount64", &tell}, sleep_{module, "Sleep", &pass}
    {
        now_ = 0;
        sleeps_.clear();
    }

    // The time since the clock began, and every sleep since then, in milliseconds.
    [[nodiscard]] ULONGLONG now() const noexcept { return now_; }

    [[nodiscard]] const std::vector<DWORD>& sleeps() const noexcept { return sleeps_; }

private:
    static ULONGLONG WINAPI tell() { return 0xFFFFFF00 + now_; } // past the border of 32 bits soon

    static void WINAPI pass(DWORD milliseconds)
    {
        now_ += milliseconds;
        sleeps_.push_back(milliseconds);
    }

    inline static ULONGLONG now_ = 0;
    inline static std::vector<DWORD> sleeps_;

    import_patch<decltype(GetTickCount64)> clock_;
    import_patch<decltype(Sleep)> sleep_;
};

} // namespace test_support
