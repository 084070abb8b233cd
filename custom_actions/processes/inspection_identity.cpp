#include "custom_actions/processes/inspection_identity.h"

#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/token.h"

#include <wtsapi32.h>

#include <stdexcept>

namespace custom_actions {
namespace {

// The session whose user owns the process; 0 if it is unknown.
DWORD find_owner_session(DWORD process, DWORD fallback_session) noexcept
{
    DWORD session = 0;
    if (ProcessIdToSessionId(process, &session)) {
        return session;
    }
    return GetLastError() == ERROR_ACCESS_DENIED ? fallback_session : 0;
}

// The token of the session's user, with all rights that the user has.
kernel_handle full_user_token(DWORD session, DWORD process)
{
    kernel_handle token;
    if (!WTSQueryUserToken(session, token.put())) {
        const DWORD code = GetLastError();
        throw windows_error{with_pid("Cannot obtain host session token for PID ", process), code};
    }
    if (token_elevation_type(token.get(), "Cannot inspect host user token") == TokenElevationTypeLimited) {
        token = linked_token(token.get(), "Cannot inspect elevated host owner");
    }
    return token;
}

} // namespace

debug_privilege_scope::debug_privilege_scope()
{
    check_bool(
        OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token_.put()),
        "Cannot open installer token");
    TOKEN_PRIVILEGES wanted{};
    wanted.PrivilegeCount = 1;
    wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    check_bool(
        LookupPrivilegeValueW(nullptr, L"SeDebugPrivilege", &wanted.Privileges[0].Luid),
        "Cannot resolve process inspection privilege");
    DWORD size = sizeof previous_;
    const BOOL adjusted =
        AdjustTokenPrivileges(token_.get(), FALSE, &wanted, sizeof previous_, &previous_, &size);
    const DWORD code = GetLastError();
    check_bool(
        adjusted && (code == ERROR_SUCCESS || code == ERROR_NOT_ALL_ASSIGNED),
        "Cannot enable process inspection privilege");
}

debug_privilege_scope::~debug_privilege_scope()
{
    AdjustTokenPrivileges(token_.get(), FALSE, &previous_, 0, nullptr, nullptr);
}

host_owner_impersonation::host_owner_impersonation(DWORD process, DWORD fallback_session)
{
    const DWORD session = find_owner_session(process, fallback_session);
    if (session == 0) {
        throw std::runtime_error{with_pid("Cannot resolve interactive owner of host PID ", process)};
    }
    const kernel_handle user = full_user_token(session, process);
    identity_.impersonate(user.get(), "Cannot inspect as host owner");
    if (!ProcessIdToSessionId(process, &session_) || session_ != session) {
        throw std::runtime_error{with_pid("Cannot verify interactive owner of host PID ", process)};
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
