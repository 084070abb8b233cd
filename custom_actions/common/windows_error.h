#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace custom_actions {

// A failure of the library's own: a fixed English message and the Windows error code that led to it. Only the
// message reaches the installer log; the code is for callers that decide on it.
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
    const DWORD code = GetLastError(); // before the message is copied
    throw windows_error{message, code};
}

// The checks take the result of a call and throw windows_error `message` if it failed. The first one is for
// calls that return a BOOL, a handle or a pointer and leave their code in the thread's last error.
template <class Result>
void check_bool(const Result& result, const char* message)
{
    if (!result) {
        throw_last_error(message);
    }
}

// For calls that return a Windows error code.
template <class Status>
void check_win32(Status status, const char* message)
{
    if (status != ERROR_SUCCESS) {
        throw windows_error{message, static_cast<DWORD>(status)};
    }
}

// For COM.
inline void check_hresult(HRESULT result, const char* message)
{
    if (FAILED(result)) {
        throw windows_error{message, static_cast<DWORD>(result)};
    }
}

} // namespace custom_actions
