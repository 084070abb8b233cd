#pragma once

#include <windows.h>
#include <msi.h>

namespace custom_actions {

// Removes the current user's override of the background's "New" menu, so that the system's own works again,
// and logs whether there was one. Throws std::bad_alloc alone.
void restore_new_menu(MSIHANDLE session);

} // namespace custom_actions
