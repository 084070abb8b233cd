#include "custom_actions/upgrade/context.h"

#include "custom_actions/common/path.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/token.h"

#include <sddl.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr std::size_t GUID_LENGTH = 38; // characters, with its braces

std::vector<std::wstring_view> split_fields(std::wstring_view text)
{
    std::vector<std::wstring_view> fields;
    for (;;) {
        const std::size_t end = std::min(text.find(L'|'), text.size());
        fields.push_back(text.substr(0, end));
        if (end == text.size()) {
            return fields;
        }
        text.remove_prefix(end + 1);
    }
}

bool consists_of(std::wstring_view text, std::wstring_view characters) noexcept
{
    return text.find_first_not_of(characters) == std::wstring_view::npos;
}

void check_sid(const std::wstring& text)
{
    PSID sid = nullptr;
    check_bool(ConvertStringSidToSidW(text.c_str(), &sid), "Invalid upgrade user SID");
    const local_memory owner{sid};
}

} // namespace

std::wstring format_context(
    const std::wstring& product_directory,
    DWORD session_id,
    const std::wstring& user_sid,
    const std::wstring& transaction)
{
    return product_directory + L'|' + std::to_wstring(session_id) + L'|' + user_sid + L'|' + transaction;
}

context load_context(std::wstring_view custom_action_data)
{
    const std::vector<std::wstring_view> fields = split_fields(custom_action_data);
    if (fields.size() != 4 || fields[1].empty() || !consists_of(fields[1], L"0123456789") ||
        fields[3].size() != GUID_LENGTH || !consists_of(fields[3], L"{}-0123456789ABCDEFabcdef")) {
        throw std::runtime_error{"Invalid upgrade transaction data"};
    }
    context loaded{
        .product_directory = normalized_folder(fields[0]),
        .workspace = {},
        .session_id = parse_unsigned(fields[1]),
        .user_sid = std::wstring{fields[2]}};
    check_sid(loaded.user_sid);
    if (!is_absolute_path(loaded.product_directory) || loaded.session_id == 0) {
        throw std::runtime_error{"An interactive user and absolute product directory are required"};
    }
    loaded.workspace = join_path(windows_directory(), LR"(Temp\QBL-upgrade-)").append(fields[3]);
    return loaded;
}

kernel_handle interactive_user_token(const context& context)
{
    return unelevated_session_user(
        context.session_id,
        context.user_sid,
        {.query = "Cannot obtain original interactive user token",
         .other_user = "Interactive user changed during upgrade",
         .elevation = "Cannot inspect interactive token",
         .unelevated = "Cannot obtain unelevated interactive token"});
}

} // namespace custom_actions::controlled_upgrade
