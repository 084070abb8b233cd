#pragma once

#include "support/import_patch.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace test_support {

// A string as a template argument.
template <std::size_t Size>
struct function_name {
    char text[Size];

    consteval function_name(const char (&name)[Size]) { std::ranges::copy(name, text); }
};

// Intercepts a module's calls to one imported function. If `answer` returns a value, that is the call's
// result; otherwise the original function is called. Only one per function may exist at a time.
template <function_name Name, class Function>
class intercepted_import;

template <function_name Name, class Result, class... Arguments>
class intercepted_import<Name, Result WINAPI(Arguments...)> {
public:
    using result = Result;
    using answer = std::function<std::optional<Result>(Arguments...)>;

    intercepted_import(HMODULE module, answer to_calls) : patch_{module, Name.text, &stub}
    {
        original_ = patch_.original();
        answer_ = std::move(to_calls);
    }

private:
    static Result WINAPI stub(Arguments... arguments)
    {
        const std::optional<Result> answered = answer_(arguments...);
        return answered ? *answered : original_(arguments...);
    }

    inline static Result(WINAPI* original_)(Arguments...) = nullptr;
    inline static answer answer_;
    import_patch<Result WINAPI(Arguments...)> patch_;
};

// The same, kept until the pointer goes: intercept<"OpenProcess">(module, &OpenProcess, answer).
template <function_name Name, class Function>
std::shared_ptr<void>
intercept(HMODULE module, Function* /*replaced*/, typename intercepted_import<Name, Function>::answer answer)
{
    return std::make_shared<intercepted_import<Name, Function>>(module, std::move(answer));
}

struct call_fault {
    DWORD last_error;
    unsigned nth = 1;   // the first call to fail
    unsigned count = 1; // how many fail in a row; 0 for all from there on
};

// Makes one imported function of a module fail: the n-th call only sets the last error and gives `returned`.
// failing_import<"OpenProcess", decltype(OpenProcess)> fault{module, nullptr, {ERROR_ACCESS_DENIED}};
template <function_name Name, class Function>
class failing_import : intercepted_import<Name, Function> {
    using interception = intercepted_import<Name, Function>;

public:
    failing_import(HMODULE module, typename interception::result returned, call_fault fault)
        : interception{module, [returned, fault, call = 0U](auto...) mutable {
                           const bool over = fault.count != 0 && call >= fault.nth - 1 + fault.count;
                           if (++call < fault.nth || over) {
                               return std::optional<typename interception::result>{};
                           }
                           SetLastError(fault.last_error);
                           return std::optional{returned};
                       }}
    {
    }
};

} // namespace test_support
