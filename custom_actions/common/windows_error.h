#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace custom_actions {

// The system's own failure: a fixed English message, and beside it the Windows error code that led to it.
// Only the message reaches the installer log; the code is there for callers that decide on it.
class windows_error : public std::runtime_error {
public:
    windows_error(const std::string& message, DWORD code) : std::runtime_error{message}, code_{code} {}

    [[nodiscard]] DWORD code() const noexcept { return code_; }

private:
    DWORD code_;
};

// Throws windows_error with the thread's last error, which must still be that of the call that failed.
[[noreturn]] inline void throw_last_error(const char* message)
{
    const DWORD code = GetLastError();
    throw windows_error{message, code};
}

} // namespace custom_actions
