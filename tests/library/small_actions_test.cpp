// The actions of the built library that only read and report.

#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "tests/support/test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace test_support {
namespace {

class SmallActions : public testing::Test {
protected:
    loaded_library library;
    test_session session{library.module()};
};

TEST_F(SmallActions, detect_a_minor_upgrade_by_the_first_two_numbers)
{
    struct {
        const wchar_t* offered;
        const wchar_t* installed;
        bool is_minor;
    } const cases[]{
        {L"1.4.2.0", L"1.4.1.7", true},
        {L"1.5", L"1.4.9.9", false},
        {L"1.3", L"1.4", false},
        {L"2.4", L"1.4", false},
        {L"0.1.20", L"", true}, // before the version was recorded
    };

    for (const auto& [offered, installed, is_minor] : cases) {
        session.set_property(L"ProductVersion", offered);
        session.set_property(L"INSTALLED_APP_VERSION", installed);
        session.set_property(L"IS_MINOR_UPGRADE", is_minor ? L"" : L"1");
        EXPECT_EQ(library.call("check_upgrade_type", session.handle()), 0U);
        EXPECT_EQ(session.property(L"IS_MINOR_UPGRADE"), is_minor ? std::optional{L"1"} : std::nullopt);
    }
}

TEST_F(SmallActions, show_the_restart_notice)
{
    EXPECT_EQ(library.call("notify_restart_recommended", session.handle()), 0U);
    EXPECT_EQ(session.messages().back().type, 0x03000040U) << "a message box with an information icon";
}

TEST_F(SmallActions, log_the_state_of_smart_app_control)
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    DWORD state = 0;
    for (const std::wstring expected :
         {L"off (", L"ON and enforcing - ", L"evaluation mode - ", L"unrecognised state ("}) {
        const std::wstring policy = LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)";
        plant_number(HKEY_LOCAL_MACHINE, policy, L"VerifiedAndReputablePolicyState", state++);
        library.call("log_app_control_state", session.handle());
        EXPECT_THAT(session.messages().back().text, testing::StartsWith(L"Smart App Control: " + expected));
    }
}

} // namespace
} // namespace test_support
