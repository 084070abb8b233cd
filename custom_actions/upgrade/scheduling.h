#pragma once

#include <windows.h>
#include <msi.h>

namespace custom_actions::controlled_upgrade {

// Prepares a controlled upgrade: pins "INSTALLFOLDER" to the folder of the installed copy that
// "WIX_UPGRADE_DETECTED" names, finds the interactive user, and leaves the phases' data in the properties
// with their names. Changes nothing else. Throws std::runtime_error "Controlled upgrade requires Windows
// Installer rollback", "Expected one installed product to upgrade", "Cannot resolve the installed product
// directory", "Sign into the desktop before upgrading Quorbel", "Cannot identify original interactive user"
// or "Cannot format upgrade transaction", windows_error "Cannot preserve installed product directory",
// "Cannot capture original Explorer user", "Cannot identify upgrade transaction" or "Cannot schedule upgrade
// recovery" (the properties set by then stay), and what read_property, find_explorer_session, token_user_sid
// and load_context throw.
void prepare(MSIHANDLE session);

} // namespace custom_actions::controlled_upgrade
