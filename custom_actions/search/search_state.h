#pragma once

#include <windows.h>
#include <msi.h>

// The bodies of the three Search actions. What the immediate one decides travels to the deferred ones as one
// word, their CustomActionData: "running" (stop Windows Search, and start it again) or "unchanged".
namespace custom_actions {

// Leaves the decision in "stop_search", "rollback_search" and "restore_search", and logs it. Throws
// windows_error or std::runtime_error "Rollback must be enabled for Search lifetime handling", windows_error
// "Cannot record Search state", and what search_is_running throws.
void capture_search(MSIHANDLE session);

// Stop or start Windows Search and log it, if the decision is "running". Throw windows_error "Cannot read
// Search state", std::runtime_error "Invalid Search state", and what stop_search_service and
// start_search_service throw.
void stop_captured_search(MSIHANDLE session);
void restore_captured_search(MSIHANDLE session);

} // namespace custom_actions
