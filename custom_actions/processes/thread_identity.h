#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

namespace custom_actions {

// The identity under which the current thread acts. The end of the scope puts back the one that the thread
// had at its beginning; if that fails, the process ends at once. No two may live at a time on one thread.
class thread_identity {
public:
    // Throws windows_error `failure` if the present identity cannot be kept.
    explicit thread_identity(const char* failure);
    ~thread_identity();

    thread_identity(const thread_identity&) = delete;
    thread_identity& operator=(const thread_identity&) = delete;

    // Lets the thread act as this user. Throws windows_error `failure`.
    void impersonate(HANDLE user, const char* failure);

private:
    kernel_handle saved_token_;
    bool impersonating_ = false;
};

} // namespace custom_actions
