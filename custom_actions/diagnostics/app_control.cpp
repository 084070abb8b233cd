#include "custom_actions/diagnostics/app_control.h"

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/registry_key.h"

#include <string>

namespace custom_actions {
namespace {

const wchar_t* describe(LSTATUS status, DWORD state) noexcept
{
    if (status != ERROR_SUCCESS) {
        return L"not reported by this Windows build";
    }
    switch (state) {
    case 0:
        return L"off";
    case 1:
        return L"ON and enforcing - binaries without Microsoft reputation are blocked from loading";
    case 2:
        return L"evaluation mode - blocks are audited, not enforced";
    default:
        return L"unrecognised state";
    }
}

} // namespace

void report_app_control_state(MSIHANDLE session)
{
    DWORD state = 0;
    const LSTATUS status = read_number(
        HKEY_LOCAL_MACHINE,
        LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)",
        L"VerifiedAndReputablePolicyState",
        RRF_RT_REG_DWORD,
        state);
    const std::wstring value = status == ERROR_SUCCESS ? std::to_wstring(state) : L"absent";
    msi_log(
        session,
        std::wstring{L"Smart App Control: "} + describe(status, state) +
            L" (VerifiedAndReputablePolicyState=" + value + L", RegGetValueW returned " +
            std::to_wstring(status) + L").");
}

} // namespace custom_actions
