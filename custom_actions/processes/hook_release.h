#pragma once

#include <windows.h>
#include <msi.h>

namespace custom_actions {

// Wakes the applications that have the Window Organizer's hook loaded, so that the system unloads it, waits
// up to 3 seconds, and logs whether they all let go. Never fails: an error on the way is logged as a release
// that could not be verified. Throws std::bad_alloc alone, if there is no memory for that line.
void release_hook(MSIHANDLE session);

} // namespace custom_actions
