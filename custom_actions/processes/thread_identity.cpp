#include "custom_actions/processes/thread_identity.h"

#include "custom_actions/common/windows_error.h"

#include <cstdlib>

namespace custom_actions {

thread_identity::thread_identity(const char* failure)
{
    check_bool(
        OpenThreadToken(GetCurrentThread(), TOKEN_IMPERSONATE | TOKEN_QUERY, TRUE, saved_token_.put()) ||
            GetLastError() == ERROR_NO_TOKEN,
        failure);
}

thread_identity::~thread_identity()
{
    if (impersonating_ && !SetThreadToken(nullptr, saved_token_.get())) {
        // Nothing may go on under an identity that is not its own.
        TerminateProcess(GetCurrentProcess(), GetLastError());
        std::abort();
    }
}

void thread_identity::impersonate(HANDLE user, const char* failure)
{
    check_bool(ImpersonateLoggedOnUser(user), failure);
    impersonating_ = true;
}

} // namespace custom_actions
