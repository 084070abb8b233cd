#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <string>

namespace custom_actions {

// A program to start on a user's desktop.
struct user_program {
    std::wstring path;
    std::wstring command_line; // the quoted program and its arguments
    std::wstring directory;    // its current directory
    DWORD creation_flags;      // besides CREATE_UNICODE_ENVIRONMENT
    const char* environment_failure;
    const char* start_failure;
};

// Starts the program with the user's own environment; it inherits no handle. Returns its process. Throws
// windows_error `environment_failure` or `start_failure`.
kernel_handle start_as_user(HANDLE user, const user_program& program);

} // namespace custom_actions
