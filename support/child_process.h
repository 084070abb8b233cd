#pragma once

#include <windows.h>

#include <chrono>
#include <string>

namespace test_support {

struct child_result {
    DWORD exit_code;
    std::string output; // standard output and standard error, as they came
};

// The file of this program.
std::wstring this_program();

// Runs `command_line` without a window and waits for its end. A child that is still running after `limit` is
// ended. Throws std::system_error where it cannot be started.
child_result run_child(std::wstring command_line, std::chrono::milliseconds limit);

} // namespace test_support
