#include "custom_actions/processes/token.h"

#include "custom_actions/common/windows_error.h"

#include <sddl.h>
#include <wtsapi32.h>

#include <cstddef>
#include <stdexcept>
#include <vector>

namespace custom_actions {

TOKEN_ELEVATION_TYPE token_elevation_type(HANDLE token) noexcept
{
    TOKEN_ELEVATION_TYPE type{};
    DWORD size = 0;
    if (!GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size)) {
        return {};
    }
    return type;
}

kernel_handle linked_token(HANDLE token) noexcept
{
    TOKEN_LINKED_TOKEN linked{};
    DWORD size = 0;
    if (!GetTokenInformation(token, TokenLinkedToken, &linked, sizeof linked, &size)) {
        return {};
    }
    return kernel_handle{linked.LinkedToken};
}

std::wstring token_user_sid(HANDLE token)
{
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<std::byte> buffer(size);
    if (!GetTokenInformation(token, TokenUser, buffer.data(), size, &size)) {
        throw_last_error("Cannot read Explorer user identity");
    }
    return sid_text(
        reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid, "Cannot format Explorer user identity");
}

std::wstring sid_text(PSID sid, const char* failure)
{
    wchar_t* text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text)) {
        throw_last_error(failure);
    }
    const local_memory owner{text};
    return text;
}

kernel_handle
unelevated_session_user(DWORD session, const std::wstring& user_sid, const session_user_failures& failures)
{
    kernel_handle token;
    if (!WTSQueryUserToken(session, token.put())) {
        throw_last_error(failures.query);
    }
    if (token_user_sid(token.get()) != user_sid) {
        throw std::runtime_error{failures.other_user};
    }
    switch (token_elevation_type(token.get())) {
    case TokenElevationTypeDefault:
    case TokenElevationTypeLimited:
        return token;
    case TokenElevationTypeFull: {
        kernel_handle unelevated = linked_token(token.get());
        if (!unelevated) {
            throw_last_error(failures.unelevated);
        }
        return unelevated;
    }
    default:
        throw_last_error(failures.elevation);
    }
}

} // namespace custom_actions
