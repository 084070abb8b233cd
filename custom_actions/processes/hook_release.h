#pragma once

#include "custom_actions/processes/process_inventory.h"

#include <windows.h>
#include <msi.h>

namespace custom_actions {

// The processes other than the calling one that have the Window Organizer's hook loaded. Throws windows_error
// "Cannot enumerate hook hosts" where there is no snapshot; empty where that cannot be read.
process_list find_hook_hosts();

// Wakes the applications that have the hook loaded, so that the system takes it out of them, waits up to 3
// seconds, and logs whether they all let go. Never fails: an error on the way is logged as a release that
// could not be verified. Throws std::bad_alloc alone, where there is no memory for that.
void release_hook(MSIHANDLE session);

} // namespace custom_actions
