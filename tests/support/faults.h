#pragma once

#include "tests/support/import_hook.h"

#include <windows.h>

#include <functional>
#include <string>

namespace test_support {

// What `call` throws: "message (code)" for a windows_error, the message of any other exception, "" for none.
// Fails the test if the call leaves a handle open or the thread impersonating.
std::string thrown_by(const std::function<void()>& call);

// The same while this program's calls to `function` are answered so: thrown_with("OpenProcess", fail_with(0,
// 5), call).
std::string thrown_with(const char* function, import_hook::answer answer, const std::function<void()>& call);

bool thread_is_impersonating();

// The number of handles that this process has open.
DWORD open_handles();

} // namespace test_support
