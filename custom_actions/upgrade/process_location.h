#pragma once

#include "custom_actions/upgrade/context.h"

#include <windows.h>

#include <string>

namespace custom_actions::controlled_upgrade {

struct image_location {
    std::wstring path; // empty if it cannot be read
    DWORD error;       // then says why; ERROR_INVALID_PARAMETER if the process has gone
};

// Where a process's image is, asked as the process's owner if need be. `fallback_session` is that of
// host_owner_impersonation, whose exceptions pass.
image_location find_image(DWORD process, DWORD fallback_session);

// Whether the process's executable lies directly in the suite's folder; false for a process that has gone.
// Throws windows_error "Cannot identify original QBL image location", and what find_image throws.
bool image_in_product_directory(DWORD process, const context& context);

} // namespace custom_actions::controlled_upgrade
