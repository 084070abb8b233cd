#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace custom_actions {

// The line about Smart App Control: `status` is what reading its state returned, `state` what was read.
std::wstring app_control_line(LSTATUS status, DWORD state);

// Writes that line to the installer's log. Throws std::bad_alloc alone.
void report_app_control_state(MSIHANDLE session);

} // namespace custom_actions
