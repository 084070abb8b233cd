#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <string>
#include <string_view>

namespace custom_actions::controlled_upgrade {

// What every phase of one upgrade knows. Each phase reads it anew from its CustomActionData.
struct context {
    std::wstring product_directory; // absolute and normalised
    std::wstring workspace;         // the folder of this upgrade's markers, saved packages and logs
    DWORD session_id;               // of the interactive user who started the installation; never 0
    std::wstring user_sid;          // that user's
};

// The CustomActionData that load_context reads. `transaction` is a GUID in its registry form.
std::wstring format_context(
    const std::wstring& product_directory,
    DWORD session_id,
    const std::wstring& user_sid,
    const std::wstring& transaction);

// Reads "<product directory>|<session id>|<user SID>|<transaction GUID>". Throws std::runtime_error "Invalid
// upgrade transaction data", "An interactive user and absolute product directory are required" or "Cannot
// resolve Windows directory", windows_error "Invalid upgrade user SID", and std::out_of_range for a session
// id beyond 32 bits.
context load_context(std::wstring_view custom_action_data);

// The token of the upgrade's interactive user, without elevation. Throws windows_error "Cannot obtain
// original interactive user token", "Cannot inspect interactive token" or "Cannot obtain unelevated
// interactive token", std::runtime_error "Interactive user changed during upgrade", and what token_user_sid
// throws.
kernel_handle interactive_user_token(const context& context);

} // namespace custom_actions::controlled_upgrade
