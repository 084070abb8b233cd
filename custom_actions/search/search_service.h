#pragma once

#include <windows.h>

#include <optional>

// Windows Search, the service "WSearch", which loads the suite's property handlers and keeps their files
// open. It is stopped before files change, and started again if it was running. Every function throws
// windows_error "Cannot open service manager" or "Cannot open Windows Search" if the service is there and
// cannot be opened, unless it says otherwise.
namespace custom_actions {

// Whether the service runs; false if it is stopped or not installed. Throws windows_error "Cannot query
// Windows Search", and std::runtime_error "Windows Search must be running or stopped before installation" for
// any other state.
bool search_is_running();

// The start type: automatic (2), on demand (3) or disabled (4); nothing if the service is not installed.
// Throws windows_error "Cannot size Windows Search configuration" or "Cannot read Windows Search
// configuration", and std::runtime_error "Unexpected Windows Search startup type".
std::optional<DWORD> read_search_start_type();

// Throws what read_search_start_type throws.
bool search_is_installed();

// Whether an automatic start is delayed. Throws windows_error "Cannot read Windows Search delayed start",
// also if the service cannot be opened.
bool search_starts_delayed();

// Changes the start type and nothing else. Throws std::runtime_error "Invalid Windows Search startup type",
// and windows_error "Cannot change Windows Search startup type", also if the service cannot be opened or is
// not installed.
void set_search_start_type(DWORD type);

// The same; for an automatic start also whether it is delayed. Also throws windows_error "Cannot restore
// Windows Search delayed start".
void restore_search_start_type(DWORD type, bool delayed);

// Stops the service and waits until it has stopped. Throws windows_error "Cannot query Windows Search" or
// "Cannot stop Windows Search", and std::runtime_error "Windows Search disappeared before stop" or "Windows
// Search transition timed out: ..." with what was seen last.
void stop_search_service();

// Starts the service and waits until it runs. Throws windows_error "Cannot query Windows Search" or "Cannot
// restart Windows Search", and std::runtime_error "Windows Search disappeared before restore" or "Windows
// Search transition timed out: ...".
void start_search_service();

} // namespace custom_actions
