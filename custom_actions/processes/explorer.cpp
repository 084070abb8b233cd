#include "custom_actions/processes/explorer.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/processes/user_process.h"

#include <algorithm>
#include <stdexcept>

namespace custom_actions {
namespace {

// The thread's token, or the process's where the thread has none.
kernel_handle current_token()
{
    kernel_handle token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()) &&
        (GetLastError() != ERROR_NO_TOKEN ||
         !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))) {
        throw_last_error("Cannot determine installer user session");
    }
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

// The first Explorer may hand over to another, so any of the session will do.
void wait_for_explorer(DWORD session)
{
    const ULONGLONG deadline = GetTickCount64() + 10'000;
    for (;;) {
        Sleep(250);
        if (explorer_running_in_session(session)) {
            return;
        }
        if (GetTickCount64() >= deadline) {
            throw std::runtime_error{"Explorer did not return after launch"};
        }
    }
}

} // namespace

std::wstring explorer_session_record()
{
    const kernel_handle token = current_token();
    DWORD session = 0;
    DWORD size = 0;
    if (!GetTokenInformation(token.get(), TokenSessionId, &session, sizeof session, &size)) {
        throw_last_error("Cannot read installer session");
    }
    if (session == 0 || !explorer_running_in_session(session)) {
        return UNCHANGED_EXPLORER;
    }
    return explorer_record(session, token_user_sid(token.get()));
}

std::wstring explorer_record(DWORD session, const std::wstring& user_sid)
{
    return std::to_wstring(session) + L'|' + user_sid;
}

explorer_session parse_explorer_record(std::wstring_view record)
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

void restart_explorer_from_record(const std::wstring& record)
{
    if (record == UNCHANGED_EXPLORER) {
        return;
    }
    const explorer_session recorded = parse_explorer_record(record);
    const kernel_handle user = unelevated_session_user(recorded.session, recorded.user_sid, USER_FAILURES);
    if (explorer_running_in_session(recorded.session)) {
        return;
    }
    const kernel_handle explorer = start_explorer(user.get());
    wait_for_explorer(recorded.session);
}

bool explorer_running_in_session(DWORD session)
{
    return std::ranges::any_of(
        find_processes_by_image({L"explorer.exe"}, listing::lenient), [&](DWORD process) {
            DWORD found = 0;
            return ProcessIdToSessionId(process, &found) && found == session;
        });
}

} // namespace custom_actions
