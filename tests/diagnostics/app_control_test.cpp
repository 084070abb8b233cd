#include "custom_actions/diagnostics/app_control.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace custom_actions {
namespace {

TEST(AppControl, tells_every_state)
{
    struct {
        LSTATUS status;
        DWORD state;
        const wchar_t* line;
    } const cases[]{
        {0, 0, L"off (VerifiedAndReputablePolicyState=0, RegGetValueW returned 0)."},
        {0,
         1,
         L"ON and enforcing - binaries without Microsoft reputation are blocked from loading "
         L"(VerifiedAndReputablePolicyState=1, RegGetValueW returned 0)."},
        {0,
         2,
         L"evaluation mode - blocks are audited, not enforced (VerifiedAndReputablePolicyState=2, "
         L"RegGetValueW returned 0)."},
        {0,
         0xFFFFFFFF,
         L"unrecognised state (VerifiedAndReputablePolicyState=4294967295, RegGetValueW returned 0)."},
        {ERROR_ACCESS_DENIED,
         1,
         L"not reported by this Windows build (VerifiedAndReputablePolicyState=absent, RegGetValueW returned "
         L"5)."},
    };

    for (const auto& [status, state, line] : cases) {
        EXPECT_EQ(app_control_line(status, state), std::wstring{L"Smart App Control: "} + line);
    }
}

TEST(AppControl, is_read_as_a_number_and_nothing_else)
{
    const test_support::registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const test_support::scripted_session session{GetModuleHandleW(nullptr)};
    const wchar_t* const path = LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)";
    const wchar_t* const name = L"VerifiedAndReputablePolicyState";
    const auto reported = [&] {
        report_app_control_state(session.handle());
        return session.messages().back().text;
    };
    EXPECT_EQ(reported(), app_control_line(ERROR_FILE_NOT_FOUND, 0));
    test_support::plant_value(HKEY_LOCAL_MACHINE, path, name, std::string_view{"\7\0\0\0", 4}, REG_DWORD);
    EXPECT_EQ(reported(), app_control_line(ERROR_SUCCESS, 7));
    test_support::plant_value(HKEY_LOCAL_MACHINE, path, name, std::string_view{"\7\0\0\0", 4}, REG_BINARY);
    EXPECT_EQ(reported(), app_control_line(ERROR_UNSUPPORTED_TYPE, 0));
    report_app_control_state(0);
    EXPECT_EQ(session.messages().size(), 3U) << "nothing without a session";
}

} // namespace
} // namespace custom_actions
