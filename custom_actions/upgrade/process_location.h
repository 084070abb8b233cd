#pragma once

#include "custom_actions/upgrade/context.h"

#include <windows.h>

#include <optional>
#include <string>

namespace custom_actions::controlled_upgrade {

// The full path of a process's image, looked at as the process's owner where need be; nothing, with the last
// error set, where it cannot be read (ERROR_INVALID_PARAMETER where the process has gone).
// `fallback_session` as for host_owner_impersonation, whose exceptions pass.
std::optional<std::wstring> image_path(DWORD process, DWORD fallback_session);

// Whether the process's executable lies directly in the suite's folder; false for a process that has gone.
// Throws windows_error "Cannot identify original QBL image location", and what image_path throws.
bool image_in_product_directory(DWORD process, const context& context);

} // namespace custom_actions::controlled_upgrade
