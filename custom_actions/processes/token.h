#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <string>

namespace custom_actions {

// What a token says of its elevation. Throws windows_error `failure`.
TOKEN_ELEVATION_TYPE token_elevation_type(HANDLE token, const char* failure);

// The other token of the same logon: the full one of a limited one, and the other way round. Throws
// windows_error `failure`.
kernel_handle linked_token(HANDLE token, const char* failure);

// The SID of the token's user in its string form. Throws windows_error "Cannot read Explorer user identity"
// or "Cannot format Explorer user identity".
std::wstring token_user_sid(HANDLE token);

// The SID of a running process's user. Throws windows_error `failure` if its token cannot be opened, and what
// token_user_sid throws.
std::wstring process_user_sid(HANDLE process, const char* failure);

// A SID in its string form. Throws windows_error `failure`.
std::wstring sid_text(PSID sid, const char* failure);

// The message for each step of getting a session's user that can fail.
struct session_user_failures {
    const char* query;      // nobody is logged on there, or the caller may not ask
    const char* other_user; // somebody else is
    const char* elevation;
    const char* unelevated;
};

// The token of the session's user, without elevation. Throws windows_error `query`, `elevation` or
// `unelevated`, std::runtime_error `other_user` if that user's SID is not exactly `user_sid`, and what
// token_user_sid throws.
kernel_handle
unelevated_session_user(DWORD session, const std::wstring& user_sid, const session_user_failures& failures);

} // namespace custom_actions
