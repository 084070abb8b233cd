#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <string>

namespace custom_actions {

// What a token says of its elevation, or nothing (0) with the last error set where it cannot be read.
TOKEN_ELEVATION_TYPE token_elevation_type(HANDLE token) noexcept;

// The other token of the same logon (the full one of a limited one, and the other way round); empty, with the
// last error set, where there is none to be had.
kernel_handle linked_token(HANDLE token) noexcept;

// The SID of the token's user in its string form. Throws windows_error "Cannot read Explorer user identity"
// or "Cannot format Explorer user identity".
std::wstring token_user_sid(HANDLE token);

} // namespace custom_actions
