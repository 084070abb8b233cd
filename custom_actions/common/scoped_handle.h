#pragma once

#include <windows.h>
#include <msi.h>

#include <type_traits>
#include <utility>

namespace custom_actions {

// Owns one handle from the line that makes it, and closes it with `Close` when the scope ends. Closing leaves
// the thread's last error as it was.
template <class Handle, auto Close>
class scoped_handle {
public:
    scoped_handle() noexcept = default;

    explicit scoped_handle(Handle handle) noexcept : handle_{handle} {}

    scoped_handle(scoped_handle&& other) noexcept : handle_{other.release()} {}

    scoped_handle& operator=(scoped_handle&& other) noexcept
    {
        if (this != &other) {
            close();
            handle_ = other.release();
        }
        return *this;
    }

    scoped_handle(const scoped_handle&) = delete;
    scoped_handle& operator=(const scoped_handle&) = delete;

    ~scoped_handle() { close(); }

    // Whether there is a handle. Windows has two values for none of a kernel object.
    [[nodiscard]] explicit operator bool() const noexcept
    {
        if constexpr (std::is_same_v<Handle, HANDLE>) {
            return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE;
        } else {
            return handle_ != Handle{};
        }
    }

    [[nodiscard]] Handle get() const noexcept { return handle_; }

    // Gives the handle up; the caller closes it.
    [[nodiscard]] Handle release() noexcept { return std::exchange(handle_, Handle{}); }

    // For calls that hand a new handle back through a pointer: closes the handle that is held and returns the
    // place for the new one.
    [[nodiscard]] Handle* put() noexcept
    {
        close();
        return &handle_;
    }

private:
    void close() noexcept
    {
        if (*this) {
            const DWORD last_error = GetLastError();
            Close(release());
            SetLastError(last_error);
        }
        handle_ = Handle{};
    }

    Handle handle_{};
};

using record_handle = scoped_handle<MSIHANDLE, MsiCloseHandle>; // an installer record
using kernel_handle = scoped_handle<HANDLE, CloseHandle>;       // a process, a token, a file, a snapshot
using local_memory = scoped_handle<void*, LocalFree>; // memory that the system gave out by LocalAlloc
using registry_key_handle = scoped_handle<HKEY, RegCloseKey>;
using service_handle = scoped_handle<SC_HANDLE, CloseServiceHandle>; // a service, or the service manager

} // namespace custom_actions
