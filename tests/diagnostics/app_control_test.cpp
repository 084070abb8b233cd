#include "tests/support/loaded_library.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gtest/gtest.h>

#include <string>

namespace test_support {
namespace {

TEST(AppControl, tells_every_state)
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const loaded_library library;
    const scripted_session session{library.module()};

    const auto told = [&](unsigned char state, DWORD type) {
        plant_value(
            HKEY_LOCAL_MACHINE,
            LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)",
            L"VerifiedAndReputablePolicyState",
            std::string{static_cast<char>(state), '\0', '\0', '\0'},
            type);
        EXPECT_EQ(library.call("log_app_control_state", session.handle()), 0U);
        return session.messages().back().text;
    };
    const wchar_t* const descriptions[]{
        L"off",
        L"ON and enforcing - binaries without Microsoft reputation are blocked from loading",
        L"evaluation mode - blocks are audited, not enforced",
        L"unrecognised state"};
    for (unsigned char state = 0; state != 4; ++state) {
        EXPECT_EQ(
            told(state, REG_DWORD),
            std::wstring{L"Smart App Control: "} + descriptions[state] +
                L" (VerifiedAndReputablePolicyState=" + std::to_wstring(state) +
                L", RegGetValueW returned 0).");
    }
    EXPECT_EQ(
        told(1, REG_BINARY),
        L"Smart App Control: not reported by this Windows build (VerifiedAndReputablePolicyState=absent, "
        L"RegGetValueW returned 1630).");
}

} // namespace
} // namespace test_support
