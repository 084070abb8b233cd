#pragma once

#include "tests/support/import_hook.h"

#include <windows.h>

#include <functional>
#include <string>
#include <utility>

namespace test_support {

// What `call` throws: "message (code)" for a windows_error, the message of any other exception, "" for none.
// Fails the test if the call leaves a handle open or the thread impersonating.
std::string thrown_by(const std::function<void()>& call);

// The same while this program's calls to `function` are answered so: thrown_with("OpenProcess", fail_with(0,
// 5), call).
template <class Answer>
std::string thrown_with(const char* function, Answer answer, const std::function<void()>& call)
{
    const import_hook hook{GetModuleHandleW(nullptr), function, std::move(answer)};
    return thrown_by(call);
}

bool thread_is_impersonating();

// The number of handles that this process has open.
DWORD open_handles();

} // namespace test_support
