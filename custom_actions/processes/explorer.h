#pragma once

#include <windows.h>
#include <msi.h>

#include <optional>
#include <string>

// Whether Explorer ran for the user who installs, and how it comes back. The immediate action that closes
// Explorer hands this to the deferred ones that bring it back, as a record in their CustomActionData:
// "<session id>|<user SID>", or "unchanged" if there is nothing to bring back.
namespace custom_actions {

struct explorer_session {
    DWORD session;
    std::wstring user_sid;
};

// The session and the user of whoever installs; nothing if no Explorer runs in that session, or if it is the
// services session (0). Throws windows_error "Cannot determine installer user session" or "Cannot read
// installer session", and what token_user_sid throws.
std::optional<explorer_session> find_explorer_session();

// The record of that. Throws what find_explorer_session throws.
std::wstring explorer_session_record();

// Starts Explorer in the session, as its user and without elevation, and waits up to 10 seconds for it. Does
// nothing if an Explorer already runs there. Throws std::runtime_error "Explorer session user changed during
// installation", "Cannot resolve Windows directory" or "Explorer did not return after launch", windows_error
// "Cannot obtain logged-in Explorer user token", "Cannot inspect Explorer token elevation", "Cannot obtain
// filtered Explorer token", "Cannot create Explorer environment" or "Cannot restart Explorer as the
// interactive user", and what token_user_sid throws.
void restart_explorer(const explorer_session& wanted);

// The body of the action restore_explorer: restarts Explorer from the record in "CustomActionData", unless
// that is "unchanged". Throws windows_error "Cannot read Explorer restoration data", std::runtime_error
// "Invalid Explorer session data" or "Explorer cannot start in session zero", std::out_of_range for a session
// id beyond 32 bits, and what restart_explorer throws.
void restore_explorer_session(MSIHANDLE session);

} // namespace custom_actions
