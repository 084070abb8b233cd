#include "custom_actions/processes/token.h"

#include "custom_actions/common/windows_error.h"

#include <sddl.h>
#include <wtsapi32.h>

#include <cstddef>
#include <stdexcept>
#include <vector>

namespace custom_actions {

TOKEN_ELEVATION_TYPE token_elevation_type(HANDLE token, const char* failure)
{
    TOKEN_ELEVATION_TYPE type{};
    DWORD size = 0;
    check_bool(GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size), failure);
    return type;
}

kernel_handle linked_token(HANDLE token, const char* failure)
{
    TOKEN_LINKED_TOKEN linked{};
    DWORD size = 0;
    check_bool(GetTokenInformation(token, TokenLinkedToken, &linked, sizeof linked, &size), failure);
    return kernel_handle{linked.LinkedToken};
}

std::wstring token_user_sid(HANDLE token)
{
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<std::byte> buffer(size);
    check_bool(
        GetTokenInformation(token, TokenUser, buffer.data(), size, &size),
        "Cannot read Explorer user identity");
    return sid_text(
        reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid, "Cannot format Explorer user identity");
}

std::wstring process_user_sid(HANDLE process, const char* failure)
{
    kernel_handle token;
    check_bool(OpenProcessToken(process, TOKEN_QUERY, token.put()), failure);
    return token_user_sid(token.get());
}

std::wstring sid_text(PSID sid, const char* failure)
{
    wchar_t* text = nullptr;
    check_bool(ConvertSidToStringSidW(sid, &text), failure);
    const local_memory owner{text};
    return text;
}

kernel_handle
unelevated_session_user(DWORD session, const std::wstring& user_sid, const session_user_failures& failures)
{
    kernel_handle token;
    check_bool(WTSQueryUserToken(session, token.put()), failures.query);
    if (token_user_sid(token.get()) != user_sid) {
        throw std::runtime_error{failures.other_user};
    }
    if (token_elevation_type(token.get(), failures.elevation) == TokenElevationTypeFull) {
        token = linked_token(token.get(), failures.unelevated);
    }
    return token;
}

} // namespace custom_actions
