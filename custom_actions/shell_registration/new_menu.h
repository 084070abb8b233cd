#pragma once

#include "custom_actions/common/installer_session.h"

namespace custom_actions {

// Removes the current user's override of the background's "New" menu, so that the system's own works again,
// and logs whether there was one. Throws std::bad_alloc alone.
void restore_new_menu(const action_log& log);

} // namespace custom_actions
