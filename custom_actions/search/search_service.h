#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <optional>

// Windows Search, the service that loads the suite's property handlers and keeps their files open. It is
// stopped before files change, and started again where it was running.
namespace custom_actions {

struct service_traits {
    using handle_type = SC_HANDLE;

    static bool is_open(handle_type handle) noexcept { return handle != nullptr; }

    static void close(handle_type handle) noexcept { CloseServiceHandle(handle); }
};

using service_handle = scoped_handle<service_traits>;

// Opens the service; an empty handle where it is not installed. Throws windows_error "Cannot open service
// manager" or "Cannot open Windows Search", and so does every function below that opens it itself.
service_handle open_search_service(DWORD access);

// Opens the service. Throws windows_error `failure` if it cannot be opened or is not installed.
service_handle require_search_service(DWORD access, const char* failure);

// The service's current state. Throws windows_error "Cannot query Windows Search".
DWORD query_search_state(SC_HANDLE service);

// How long a service that hints at `wait_hint_ms` milliseconds may go without progress.
DWORD search_stall_limit(DWORD wait_hint_ms) noexcept;

// Waits until the service is in the state `expected`, asking every 250 ms: a minute at most, and less where
// it makes no progress for its stall limit. Throws windows_error "Cannot query Windows Search", and
// std::runtime_error "Windows Search transition timed out: ..." with what was seen last.
void wait_for_search_state(SC_HANDLE service, DWORD expected);

// Whether the service runs; false where it is stopped or not installed. Throws windows_error "Cannot query
// Windows Search", and std::runtime_error "Windows Search must be running or stopped before installation" for
// any other state.
bool search_is_running();

// The start type: automatic (2), on demand (3) or disabled (4); nothing where the service is not installed.
// Throws windows_error "Cannot size Windows Search configuration" or "Cannot read Windows Search
// configuration", and std::runtime_error "Unexpected Windows Search startup type".
std::optional<DWORD> read_search_start_type();

// Changes the start type and nothing else. Returns the service, open for changes of its configuration. Throws
// std::runtime_error "Invalid Windows Search startup type", and windows_error "Cannot change Windows Search
// startup type", also if the service cannot be opened or is not installed.
service_handle set_search_start_type(DWORD type);

// Stops the service and waits until it has stopped. Throws windows_error "Cannot query Windows Search" or
// "Cannot stop Windows Search", std::runtime_error "Windows Search disappeared before stop", and what
// wait_for_search_state throws.
void stop_search_service();

// Starts the service and waits until it runs. Throws windows_error "Cannot query Windows Search" or "Cannot
// restart Windows Search", std::runtime_error "Windows Search disappeared before restore", and what
// wait_for_search_state throws.
void start_search_service();

} // namespace custom_actions
