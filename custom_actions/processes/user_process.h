#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <string>

namespace custom_actions {

// A program to start on the desktop of the user whose token is at hand.
struct user_program {
    std::wstring path;
    std::wstring command_line; // quoted as need be, with the program in front
    std::wstring directory;    // where it starts
    DWORD creation_flags;      // besides CREATE_UNICODE_ENVIRONMENT
    const char* environment_failure;
    const char* start_failure;
};

// Starts the program with the user's own environment and without any handle of ours, and returns its process.
// Throws windows_error `environment_failure` or `start_failure`.
kernel_handle start_as_user(HANDLE user, const user_program& program);

} // namespace custom_actions
