#pragma once

#include "tests/support/import_patch.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>

namespace test_support {

// A text as a template argument.
template <std::size_t Size>
struct function_name {
    char text[Size];

    consteval function_name(const char (&name)[Size]) { std::ranges::copy(name, text); }
};

struct call_fault {
    DWORD last_error;
    unsigned nth = 1;   // the first call that fails
    unsigned count = 1; // how many fail in a row; 0 is all from there on
};

// Lets one imported function of a module fail: its n-th call returns `result` with the last error set,
// without doing anything. failing_import<"OpenProcess", decltype(OpenProcess)> fault{module, nullptr,
// {ERROR_ACCESS_DENIED}};
template <function_name Name, class Function>
class failing_import;

template <function_name Name, class Result, class... Arguments>
class failing_import<Name, Result WINAPI(Arguments...)> {
public:
    failing_import(HMODULE module, Result result, call_fault fault) : patch_{module, Name.text, &stub}
    {
        original_ = patch_.original();
        result_ = result;
        fault_ = fault;
        calls_ = 0;
    }

    [[nodiscard]] unsigned calls() const noexcept { return calls_; }

private:
    static Result WINAPI stub(Arguments... arguments)
    {
        ++calls_;
        if (calls_ >= fault_.nth && (fault_.count == 0 || calls_ < fault_.nth + fault_.count)) {
            SetLastError(fault_.last_error);
            return result_;
        }
        return original_(arguments...);
    }

    inline static Result(WINAPI* original_)(Arguments...) = nullptr;
    inline static Result result_{};
    inline static call_fault fault_{};
    inline static unsigned calls_ = 0;

    import_patch<Result WINAPI(Arguments...)> patch_;
};

} // namespace test_support
