#pragma once

#include <windows.h>
#include <msi.h>

#include <utility>

namespace custom_actions {

// Owns one handle from the line that makes it, and closes it when the scope ends. Closing leaves the thread's
// last-error value as it was. `Traits` names the kind: its handle type (whose zero value means "none"), which
// values are open handles, and how one is closed.
template <class Traits>
class scoped_handle {
public:
    using handle_type = typename Traits::handle_type;

    scoped_handle() noexcept = default;

    explicit scoped_handle(handle_type handle) noexcept : handle_{handle} {}

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

    [[nodiscard]] explicit operator bool() const noexcept { return Traits::is_open(handle_); }

    [[nodiscard]] handle_type get() const noexcept { return handle_; }

    // Gives the handle up; the caller closes it.
    [[nodiscard]] handle_type release() noexcept { return std::exchange(handle_, handle_type{}); }

    // For calls that hand a new handle back through a pointer: closes the one that is held and returns where
    // the new one goes.
    [[nodiscard]] handle_type* put() noexcept
    {
        close();
        return &handle_;
    }

private:
    void close() noexcept
    {
        if (const handle_type handle = release(); Traits::is_open(handle)) {
            const DWORD last_error = GetLastError();
            Traits::close(handle);
            SetLastError(last_error);
        }
    }

    handle_type handle_{};
};

// An installer record.
struct record_traits {
    using handle_type = MSIHANDLE;

    static bool is_open(handle_type handle) noexcept { return handle != 0; }

    static void close(handle_type handle) noexcept { MsiCloseHandle(handle); }
};

using record_handle = scoped_handle<record_traits>;

// A kernel object: a process, a token, a file, a snapshot.
struct kernel_traits {
    using handle_type = HANDLE;

    static bool is_open(handle_type handle) noexcept
    {
        return handle != nullptr && handle != INVALID_HANDLE_VALUE;
    }

    static void close(handle_type handle) noexcept { CloseHandle(handle); }
};

using kernel_handle = scoped_handle<kernel_traits>;

// Memory that the system gave out by LocalAlloc.
struct local_memory_traits {
    using handle_type = void*;

    static bool is_open(handle_type handle) noexcept { return handle != nullptr; }

    static void close(handle_type handle) noexcept { LocalFree(handle); }
};

using local_memory = scoped_handle<local_memory_traits>;

// An open registry key.
struct registry_key_traits {
    using handle_type = HKEY;

    static bool is_open(handle_type handle) noexcept { return handle != nullptr; }

    static void close(handle_type handle) noexcept { RegCloseKey(handle); }
};

using registry_key_handle = scoped_handle<registry_key_traits>;

} // namespace custom_actions
