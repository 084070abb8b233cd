#pragma once

#include "custom_actions/upgrade/context.h"

#include <windows.h>
#include <msi.h>

#include <string>
#include <string_view>

// Windows PowerShell does all work on packages and on the user's desktop. Every text that goes into a script
// passes through quote_powershell_literal.
namespace custom_actions {

// The text as a single-quoted literal of PowerShell: each straight single quote doubled, nothing else
// changed.
std::wstring quote_powershell_literal(std::wstring_view text);

// The path of Windows PowerShell, 64-bit, below this system directory; never one found on PATH.
std::wstring powershell_program(const std::wstring& system_directory);

// The arguments that make PowerShell run `script` without a window, a prompt or a profile. Throws
// windows_error `failure` if the script cannot be encoded.
std::wstring powershell_arguments(std::wstring_view script, const char* failure);

// Runs a script, which must have no `exit` of its own, as the upgrade's interactive user, never elevated, in
// that user's session, and waits up to `timeout_ms` milliseconds for its end. All that it prints goes to
// "<operation>.log" in the workspace's folder "output", which must exist; the file stays. Returns the file's
// bytes: UTF-8 with a byte-order mark, or none if it printed nothing. Logs the start, the end and a time-out;
// a script that is over its time is terminated with exit code 1460.
//
// Throws windows_error "Cannot encode user operation", "Cannot create user environment", "Cannot launch
// package operation as original user" or "Cannot read user operation result", std::runtime_error "Cannot
// resolve system directory", "User operation timed out; see retained upgrade recovery logs" or "User
// operation failed; see retained upgrade recovery logs" (an exit code other than 0, or a log that is no file
// on a disk of at most 16 MiB), and what interactive_user_token throws.
std::string run_powershell(
    MSIHANDLE session,
    const controlled_upgrade::context& context,
    std::wstring_view script,
    const std::wstring& operation,
    DWORD timeout_ms);

} // namespace custom_actions
