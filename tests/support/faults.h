#pragma once

#include "tests/support/failing_import.h"

#include <windows.h>

#include <functional>
#include <string>

namespace test_support {

// What `call` throws: "message (code)" of a windows_error, the message alone of another exception, "" of
// none. Fails the test where the call leaves a handle open or the thread under another identity.
std::string thrown_by(const std::function<void()>& call);

bool thread_is_impersonating();

// A number that is the same again once all handles that this process has opened since are closed: their
// count, where the system tells it.
DWORD open_handles();

} // namespace test_support

// thrown_by(call) while the imported `function` of this program fails: THROWN_WITH(call, OpenProcess,
// nullptr, {5}).
#define THROWN_WITH(call, function, ...)                                                                     \
    ([&] {                                                                                                   \
        const test_support::failing_import<#function, decltype(function)> fault{                             \
            GetModuleHandleW(nullptr), __VA_ARGS__};                                                         \
        return test_support::thrown_by(call);                                                                \
    }())
