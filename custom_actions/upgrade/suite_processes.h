#pragma once

#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/upgrade/context.h"

#include <windows.h>
#include <msi.h>

namespace custom_actions::controlled_upgrade {

// The processes that must be gone before files are replaced: the suite's programs that run from its folder,
// and the shell hosts that have its extensions loaded, each inspected under its owner's identity. Throws
// std::runtime_error "QBL is running in another session; close it there before upgrading", windows_error if
// anything about a process cannot be determined, and what image_in_product_directory, debug_privilege_scope
// and host_owner_impersonation throw.
process_list upgrade_processes(const context& context);

// Closes those processes, by force if they do not close themselves, in at most two passes, and logs them.
// Throws windows_error "Cannot stop a QBL host" or "QBL host did not exit after termination",
// std::runtime_error "QBL processes survived shutdown; refusing to replace their files", and what
// upgrade_processes throws.
void stop(MSIHANDLE session, const context& context);

} // namespace custom_actions::controlled_upgrade
