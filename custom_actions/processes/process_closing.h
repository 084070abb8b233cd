#pragma once

#include "custom_actions/common/installer_session.h"
#include "custom_actions/processes/process_inventory.h"

#include <windows.h>

namespace custom_actions {

// Asks the windows of these processes to close, waits up to `timeout_ms` milliseconds for all of them
// together, and terminates those that are still there with exit code 1, waiting up to 5 seconds more for
// each. Skips processes that cannot be opened or terminated. Throws std::bad_alloc alone.
void close_processes(const process_list& processes, DWORD timeout_ms);

enum class asked_windows { all, all_but_desktop };

// Posts a close request to the top-level windows of these processes.
void ask_windows_to_close(const process_list& processes, asked_windows windows) noexcept;

// The milliseconds until GetTickCount64() reaches `deadline`; 0 once it has.
DWORD time_left(ULONGLONG deadline) noexcept;

// Logs which processes of a group are about to be closed. Does nothing without a callback.
void log_process_group(const log_callback& log, const std::wstring& label, const process_list& processes);

// Closes the suite's programs and the shell hosts that have its extensions loaded, and releases the Window
// Organizer's hook. Leaves in "restore_explorer" and "rollback_explorer" whether Explorer must come back.
// Throws windows_error "Cannot record Explorer session" if those cannot be set, before anything is closed,
// and what explorer_session_record throws.
void close_our_processes(const action_log& log);

} // namespace custom_actions
