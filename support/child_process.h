#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <chrono>
#include <string>

namespace test_support {

struct child_result {
    DWORD exit_code;
    std::string output; // standard output and standard error, as they came
};

// The file of this program, and one of this name beside it.
std::wstring this_program();
std::wstring beside_this_program(const std::wstring& name);

struct started_child {
    custom_actions::kernel_handle process;
    DWORD id;
};

// Starts a program. With an inheritable `output` it writes there, and inherits whatever else is inheritable.
// Throws std::system_error where it cannot be started.
started_child start_child(std::wstring command_line, DWORD flags = 0, HANDLE output = nullptr);

// Runs `command_line` without a window and waits for its end. A child that is still running after `limit` is
// ended. Throws std::system_error where it cannot be started.
child_result run_child(std::wstring command_line, std::chrono::milliseconds limit);

} // namespace test_support
