#pragma once

#include "custom_actions/common/installer_session.h"

namespace custom_actions {

// Compares "ProductVersion" with "INSTALLED_APP_VERSION" (0.1.16.0 if that is empty), and sets
// "IS_MINOR_UPGRADE" to "1" for a minor upgrade or clears it. Throws std::bad_alloc alone.
void classify_upgrade(const action_log& log);

// Shows the notice that a restart is advisable after a removal.
void show_restart_notice(MSIHANDLE session) noexcept;

} // namespace custom_actions
