#pragma once

#include "custom_actions/common/guid.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"

#include <windows.h>

#include <string>

namespace test_support {

// CustomActionData for a new upgrade of this folder by this process's user and session.
inline std::wstring new_upgrade_data(const std::wstring& product_directory)
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return custom_actions::controlled_upgrade::format_context(
        product_directory,
        session,
        custom_actions::token_user_sid(GetCurrentProcessToken()),
        custom_actions::new_guid("no transaction", "no transaction"));
}

} // namespace test_support
