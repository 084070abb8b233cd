#pragma once

#include "custom_actions/common/installer_session.h"
#include "custom_actions/processes/process_inventory.h"

#include <windows.h>

#include <string_view>

namespace custom_actions {

// Asks the windows of these processes to close, waits up to `timeout_ms` milliseconds for all of them
// together, and ends those that are still there with exit code 1, waiting up to 5 seconds more for each of
// them. Processes that cannot be opened are left out, and so is one that cannot be ended. Throws
// std::bad_alloc alone.
void close_processes(const process_list& processes, DWORD timeout_ms);

enum class asked_windows { all, all_but_desktop };

// Posts a close request to the top-level windows of these processes.
void ask_windows_to_close(const process_list& processes, asked_windows windows) noexcept;

// The milliseconds until GetTickCount64() gets to `deadline`; 0 once it has.
DWORD time_left(ULONGLONG deadline) noexcept;

// Whether windows of this class make up the desktop and the taskbars, which are never asked to close.
bool is_desktop_class(std::wstring_view window_class) noexcept;

// Says which processes of a group are about to be closed; nothing without a callback.
void log_process_group(const log_callback& log, const std::wstring& label, const process_list& processes);

// Closes the suite's programs and the shell hosts that have its extensions loaded, and has the Window
// Organizer's hook released. Leaves in "restore_explorer" and "rollback_explorer" whether Explorer must come
// back. Returns ERROR_INSTALL_FAILURE where those cannot be set; throws what explorer_session_record throws.
UINT close_our_processes(MSIHANDLE session);

} // namespace custom_actions
