#pragma once

#include <windows.h>

#include <string>
#include <string_view>

// Whether Explorer ran for the user who installs, and how it comes back. The record of it travels from the
// immediate action that closes Explorer to the deferred ones that bring it back, as their CustomActionData.
namespace custom_actions {

// The record where there is nothing to bring back.
inline constexpr const wchar_t* UNCHANGED_EXPLORER = L"unchanged";

// The record of an Explorer that is to run for this user: "<session id>|<user SID>".
std::wstring explorer_record(DWORD session, const std::wstring& user_sid);

// The record of what is: of the user who installs, or that there is nothing to bring back. Throws
// windows_error "Cannot determine installer user session" or "Cannot read installer session", and what
// token_user_sid throws.
std::wstring explorer_session_record();

struct explorer_session {
    DWORD session;
    std::wstring user_sid;
};

// Reads a record other than "unchanged". Throws std::runtime_error "Invalid Explorer session data" or
// "Explorer cannot start in session zero", and std::out_of_range for a session id beyond 32 bits.
explorer_session parse_explorer_record(std::wstring_view record);

// Starts Explorer in the recorded session, as its user and without elevation, unless one is running there,
// and waits up to 10 seconds for it. Does nothing for "unchanged". Throws what parse_explorer_record and
// token_user_sid throw, std::runtime_error "Explorer session user changed during installation", "Cannot
// resolve Windows directory" or "Explorer did not return after launch", and windows_error "Cannot obtain
// logged-in Explorer user token", "Cannot inspect Explorer token elevation", "Cannot obtain filtered Explorer
// token", "Cannot create Explorer environment" or "Cannot restart Explorer as the interactive user".
void restart_explorer_from_record(const std::wstring& record);

// Whether any "explorer.exe" runs in the session; false where that cannot be told.
bool explorer_running_in_session(DWORD session);

} // namespace custom_actions
