#include "custom_actions/processes/explorer.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/token.h"

#include <userenv.h>
#include <wtsapi32.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace custom_actions {
namespace {

constexpr const wchar_t* UNCHANGED = L"unchanged";

struct environment_block_traits {
    using handle_type = void*;

    static bool is_open(handle_type handle) noexcept { return handle != nullptr; }

    static void close(handle_type handle) noexcept { DestroyEnvironmentBlock(handle); }
};

using environment_block = scoped_handle<environment_block_traits>;

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

// The token of the recorded session's user, who must still be the recorded one.
kernel_handle recorded_user_token(const explorer_session& recorded)
{
    kernel_handle token;
    if (!WTSQueryUserToken(recorded.session, token.put())) {
        throw_last_error("Cannot obtain logged-in Explorer user token");
    }
    if (token_user_sid(token.get()) != recorded.user_sid) {
        throw std::runtime_error{"Explorer session user changed during installation"};
    }
    return token;
}

// The same user without elevation.
kernel_handle without_elevation(kernel_handle token)
{
    switch (token_elevation_type(token.get())) {
    case TokenElevationTypeDefault:
    case TokenElevationTypeLimited:
        return token;
    case TokenElevationTypeFull: {
        kernel_handle filtered = linked_token(token.get());
        if (!filtered) {
            throw_last_error("Cannot obtain filtered Explorer token");
        }
        return filtered;
    }
    default:
        throw_last_error("Cannot inspect Explorer token elevation");
    }
}

std::wstring windows_directory()
{
    std::array<wchar_t, 260> path{};
    const UINT length = GetWindowsDirectoryW(path.data(), static_cast<UINT>(path.size()));
    if (length == 0 || length >= path.size()) {
        throw std::runtime_error{"Cannot resolve Windows directory"};
    }
    return path.data();
}

struct started_process {
    kernel_handle process;
    kernel_handle thread;
};

started_process start_explorer(HANDLE user)
{
    const std::wstring directory = windows_directory();
    const std::wstring program = directory + LR"(\explorer.exe)";
    std::wstring command_line = L'"' + program + L'"';
    environment_block environment;
    if (!CreateEnvironmentBlock(environment.put(), user, FALSE)) {
        throw_last_error("Cannot create Explorer environment");
    }
    std::wstring desktop = LR"(winsta0\default)";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop.data();
    PROCESS_INFORMATION started{};
    if (!CreateProcessAsUserW(
            user,
            program.c_str(),
            command_line.data(),
            nullptr,
            nullptr,
            FALSE,
            CREATE_UNICODE_ENVIRONMENT,
            environment.get(),
            directory.c_str(),
            &startup,
            &started)) {
        throw_last_error("Cannot restart Explorer as the interactive user");
    }
    return {.process = kernel_handle{started.hProcess}, .thread = kernel_handle{started.hThread}};
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
        return UNCHANGED;
    }
    return std::to_wstring(session) + L'|' + token_user_sid(token.get());
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
    if (record == UNCHANGED) {
        return;
    }
    const explorer_session recorded = parse_explorer_record(record);
    const kernel_handle user = without_elevation(recorded_user_token(recorded));
    if (explorer_running_in_session(recorded.session)) {
        return;
    }
    const started_process explorer = start_explorer(user.get());
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
