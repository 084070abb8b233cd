#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/processes/thread_identity.h"

#include <windows.h>

// The rights to look into processes of other users, each for as long as its scope object lives.
namespace custom_actions {

// Holds "SeDebugPrivilege" if the process's token has it at all; without it, later steps take the identity of
// a host's owner. The end of the scope restores the privilege's former state.
class debug_privilege_scope {
public:
    // Throws windows_error "Cannot open installer token", "Cannot resolve process inspection privilege" or
    // "Cannot enable process inspection privilege".
    debug_privilege_scope();
    ~debug_privilege_scope();

    debug_privilege_scope(const debug_privilege_scope&) = delete;
    debug_privilege_scope& operator=(const debug_privilege_scope&) = delete;

private:
    kernel_handle token_;
    TOKEN_PRIVILEGES previous_{};
};

// Lets the current thread act as the interactive user in whose session a process runs, with all of that
// user's rights, until the scope ends.
class host_owner_impersonation {
public:
    // `fallback_session` stands for the session of a process that may not be asked for it. Throws
    // windows_error "Cannot preserve inspection identity", "Cannot obtain host session token for PID <id>",
    // "Cannot inspect host user token", "Cannot inspect elevated host owner" or "Cannot inspect as host
    // owner", and std::runtime_error "Cannot resolve interactive owner of host PID <id>" (a process of
    // session 0, or one that has gone) or "Cannot verify interactive owner of host PID <id>". The thread's
    // identity is then as it was.
    host_owner_impersonation(DWORD process, DWORD fallback_session);

    // The process's session, as read back under the user's identity.
    [[nodiscard]] DWORD session() const noexcept { return session_; }

private:
    thread_identity identity_{"Cannot preserve inspection identity"};
    DWORD session_ = 0;
};

// Opens a process; if the caller is denied, tries again as its interactive owner. Returns an empty handle,
// with the last error of the last attempt, if that fails. Throws what host_owner_impersonation throws.
kernel_handle open_process_as_host_owner(DWORD access, DWORD process, DWORD fallback_session);

} // namespace custom_actions
