#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "support/scratch_database.h"

#include <windows.h>
#include <msi.h>

#include <functional>
#include <string>
#include <vector>

namespace test_support {

struct posted_message {
    UINT type;
    std::wstring text;

    bool operator==(const posted_message&) const = default;
};

// A session of the real installer in this process, on a temporary package with nothing to install.
// Properties, records and messages are the installer's own. It is not a deferred context.
class real_session {
public:
    using message_listener = std::function<void(const posted_message&)>;

    // Calls `listener` with each message as it is posted. Throws std::system_error with the installer's code.
    explicit real_session(message_listener listener = {});
    ~real_session();

    real_session(const real_session&) = delete;
    real_session& operator=(const real_session&) = delete;

    [[nodiscard]] MSIHANDLE handle() const noexcept { return session_.get(); }

    // Every message posted since the session was opened.
    [[nodiscard]] const std::vector<posted_message>& messages() const noexcept { return messages_; }

private:
    static INT WINAPI on_message(LPVOID context, UINT type, MSIHANDLE record);

    scratch_database database_;
    custom_actions::record_handle session_; // MsiCloseHandle closes sessions too
    message_listener listener_;
    std::vector<posted_message> messages_;
};

} // namespace test_support
