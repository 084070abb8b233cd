#pragma once

#include "tests/support/failing_import.h"

#include <windows.h>

#include <functional>
#include <string>

namespace test_support {

// What `call` throws: "message (code)" for a windows_error, the message of any other exception, "" for none.
// Fails the test if the call leaves a handle open or the thread impersonating.
std::string thrown_by(const std::function<void()>& call);

bool thread_is_impersonating();

// The number of handles that this process has open.
DWORD open_handles();

} // namespace test_support

// thrown_by(call) while `function` fails in this program: THROWN_WITH(call, OpenProcess, nullptr, {5}).
#define THROWN_WITH(call, function, ...)                                                                     \
    ([&] {                                                                                                   \
        const test_support::failing_import<#function, decltype(function)> fault{                             \
            GetModuleHandleW(nullptr), __VA_ARGS__};                                                         \
        return test_support::thrown_by(call);                                                                \
    }())
