#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <chrono>
#include <string>

namespace test_support {

struct child_result {
    DWORD exit_code;
    std::string output; // standard output and standard error, interleaved
};

// The path of this program, and of the file `name` beside it.
std::wstring this_program();
std::wstring beside_this_program(const std::wstring& name);

struct started_child {
    custom_actions::kernel_handle process;
    DWORD id;
};

// Starts a program. An inheritable `output` becomes its standard output and error; it then inherits every
// other inheritable handle too. Throws std::system_error if it cannot be started.
started_child start_child(std::wstring command_line, DWORD flags = 0, HANDLE output = nullptr);

// Runs `command_line` without a window and waits until it exits; terminates it after `limit`. Throws
// std::system_error if it cannot be started.
child_result run_child(std::wstring command_line, std::chrono::milliseconds limit);

} // namespace test_support
