#include "custom_actions/processes/explorer.h"

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/text.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/processes/user_process.h"

#include <stdexcept>
#include <string_view>

namespace custom_actions {
namespace {

constexpr const wchar_t* UNCHANGED = L"unchanged";
constexpr ULONGLONG RETURN_LIMIT_MS = 10'000;
constexpr DWORD RETURN_POLL_MS = 250;
constexpr DWORD RECORD_SIZE = 256; // characters; no session id and SID are as long

bool explorer_running_in_session(DWORD session)
{
    return image_runs_in_session(EXPLORER_IMAGES, session);
}

// The thread's token, or the process's if the thread has none.
kernel_handle current_token()
{
    kernel_handle token;
    const bool opened =
        OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()) ||
        (GetLastError() == ERROR_NO_TOKEN && OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()));
    check_bool(opened, "Cannot determine installer user session");
    return token;
}

constexpr session_user_failures USER_FAILURES{
    .query = "Cannot obtain logged-in Explorer user token",
    .other_user = "Explorer session user changed during installation",
    .elevation = "Cannot inspect Explorer token elevation",
    .unelevated = "Cannot obtain filtered Explorer token",
};

kernel_handle start_explorer(HANDLE user)
{
    const std::wstring directory = windows_directory();
    const std::wstring program = directory + LR"(\explorer.exe)";
    return start_as_user(
        user,
        {.path = program,
         .command_line = L'"' + program + L'"',
         .directory = directory,
         .creation_flags = 0,
         .environment_failure = "Cannot create Explorer environment",
         .start_failure = "Cannot restart Explorer as the interactive user"});
}

// Waits for any Explorer in the session: the one that was started may hand over to another.
void wait_for_explorer(DWORD session)
{
    const ULONGLONG deadline = GetTickCount64() + RETURN_LIMIT_MS;
    for (;;) {
        Sleep(RETURN_POLL_MS);
        if (explorer_running_in_session(session)) {
            return;
        }
        if (GetTickCount64() >= deadline) {
            throw std::runtime_error{"Explorer did not return after launch"};
        }
    }
}

explorer_session parse_record(std::wstring_view record)
{
    const std::size_t separator = record.find(L'|');
    const std::wstring_view digits = record.substr(0, separator);
    if (separator == std::wstring_view::npos || digits.empty() ||
        digits.find_first_not_of(L"0123456789") != std::wstring_view::npos) {
        throw std::runtime_error{"Invalid Explorer session data"};
    }
    const DWORD session = parse_unsigned(digits);
    if (session == 0) {
        throw std::runtime_error{"Explorer cannot start in session zero"};
    }
    return {.session = session, .user_sid = std::wstring{record.substr(separator + 1)}};
}

} // namespace

std::optional<explorer_session> find_explorer_session()
{
    const kernel_handle token = current_token();
    DWORD session = 0;
    DWORD size = 0;
    check_bool(
        GetTokenInformation(token.get(), TokenSessionId, &session, sizeof session, &size),
        "Cannot read installer session");
    if (session == 0 || !explorer_running_in_session(session)) {
        return std::nullopt;
    }
    return explorer_session{.session = session, .user_sid = token_user_sid(token.get())};
}

std::wstring explorer_session_record()
{
    const std::optional<explorer_session> found = find_explorer_session();
    return found ? std::to_wstring(found->session) + L'|' + found->user_sid : UNCHANGED;
}

void restart_explorer(const explorer_session& wanted)
{
    const kernel_handle user = unelevated_session_user(wanted.session, wanted.user_sid, USER_FAILURES);
    if (explorer_running_in_session(wanted.session)) {
        return;
    }
    const kernel_handle explorer = start_explorer(user.get());
    wait_for_explorer(wanted.session);
}

void restore_explorer_session(MSIHANDLE session)
{
    const std::wstring record = read_short_property<RECORD_SIZE>(
        session, L"CustomActionData", "Cannot read Explorer restoration data");
    if (record != UNCHANGED) {
        restart_explorer(parse_record(record));
    }
    msi_log(session, L"Explorer restoration completed for the original interactive session.");
}

} // namespace custom_actions
