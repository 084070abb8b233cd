#include "custom_actions/processes/inspection_identity.h"

#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/token.h"

#include <wtsapi32.h>

#include <stdexcept>
#include <string>

namespace custom_actions {
namespace {

std::string about(const char* message, DWORD process)
{
    return message + std::to_string(process);
}

DWORD find_owner_session(DWORD process, DWORD fallback_session) noexcept
{
    DWORD session = 0;
    const DWORD asked = ProcessIdToSessionId(process, &session) ? ERROR_SUCCESS : GetLastError();
    return owner_session(asked, session, fallback_session);
}

// The token of the session's user, with all rights that the user has.
kernel_handle full_user_token(DWORD session, DWORD process)
{
    kernel_handle token;
    if (!WTSQueryUserToken(session, token.put())) {
        const DWORD code = GetLastError();
        throw windows_error{about("Cannot obtain host session token for PID ", process), code};
    }
    switch (token_elevation_type(token.get())) {
    case TokenElevationTypeDefault:
    case TokenElevationTypeFull:
        return token;
    case TokenElevationTypeLimited: {
        kernel_handle full = linked_token(token.get());
        if (!full) {
            throw_last_error("Cannot inspect elevated host owner");
        }
        return full;
    }
    default:
        throw_last_error("Cannot inspect host user token");
    }
}

} // namespace

debug_privilege_scope::debug_privilege_scope()
{
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token_.put())) {
        throw_last_error("Cannot open installer token");
    }
    TOKEN_PRIVILEGES wanted{};
    wanted.PrivilegeCount = 1;
    wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (!LookupPrivilegeValueW(nullptr, L"SeDebugPrivilege", &wanted.Privileges[0].Luid)) {
        throw_last_error("Cannot resolve process inspection privilege");
    }
    DWORD size = sizeof previous_;
    const BOOL adjusted =
        AdjustTokenPrivileges(token_.get(), FALSE, &wanted, sizeof previous_, &previous_, &size);
    const DWORD code = GetLastError();
    if (!adjusted || (code != ERROR_SUCCESS && code != ERROR_NOT_ALL_ASSIGNED)) {
        throw windows_error{"Cannot enable process inspection privilege", code};
    }
}

debug_privilege_scope::~debug_privilege_scope()
{
    AdjustTokenPrivileges(token_.get(), FALSE, &previous_, 0, nullptr, nullptr);
}

DWORD owner_session(DWORD asked, DWORD session, DWORD fallback) noexcept
{
    if (asked == ERROR_SUCCESS) {
        return session;
    }
    return asked == ERROR_ACCESS_DENIED ? fallback : 0;
}

host_owner_impersonation::host_owner_impersonation(DWORD process, DWORD fallback_session)
{
    const DWORD session = find_owner_session(process, fallback_session);
    if (session == 0) {
        throw std::runtime_error{about("Cannot resolve interactive owner of host PID ", process)};
    }
    const kernel_handle user = full_user_token(session, process);
    identity_.impersonate(user.get(), "Cannot inspect as host owner");
    if (!ProcessIdToSessionId(process, &session_) || session_ != session) {
        throw std::runtime_error{about("Cannot verify interactive owner of host PID ", process)};
    }
}

kernel_handle open_process_as_host_owner(DWORD access, DWORD process, DWORD fallback_session)
{
    kernel_handle opened{OpenProcess(access, FALSE, process)};
    if (opened || GetLastError() != ERROR_ACCESS_DENIED) {
        return opened;
    }
    DWORD last_error = ERROR_SUCCESS;
    {
        const host_owner_impersonation owner{process, fallback_session};
        opened = kernel_handle{OpenProcess(access, FALSE, process)};
        last_error = GetLastError();
    }
    SetLastError(last_error);
    return opened;
}

} // namespace custom_actions
