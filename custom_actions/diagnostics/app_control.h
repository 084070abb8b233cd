#pragma once

#include <windows.h>
#include <msi.h>

namespace custom_actions {

// Writes one line about Smart App Control to the installer's log. Throws std::bad_alloc alone.
void report_app_control_state(MSIHANDLE session);

} // namespace custom_actions
