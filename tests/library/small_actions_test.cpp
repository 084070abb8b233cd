// The actions that only look and tell, called in the built library.

#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace test_support {
namespace {

class SmallActions : public testing::Test {
protected:
    loaded_library library;
    scripted_session session{library.module()};
};

TEST_F(SmallActions, tell_a_minor_upgrade_by_the_first_two_numbers)
{
    struct {
        const wchar_t* offered;
        const wchar_t* installed;
        const wchar_t* versions;
        bool is_minor;
    } const cases[]{
        {L"1.4.2.0", L"1.4.1.7", L"New: 1.4.2.0 Old: 1.4.1.7", true},
        {L"1.5", L"1.4.9.9", L"New: 1.5.0.0 Old: 1.4.9.9", false},
        {L"1.3", L"1.4", L"New: 1.3.0.0 Old: 1.4.0.0", false},
        {L"2.4", L"1.4", L"New: 2.4.0.0 Old: 1.4.0.0", false},
        {L"0.1.20", L"", L"New: 0.1.20.0 Old: 0.1.16.0", true},
        {L"", L"v1.2", L"New: 0.0.0.0 Old: 0.0.0.0", true},
        {L"-1.4 beta", L"1.x.2.3", L"New: -1.4.0.0 Old: 1.0.0.0", false},
    };

    for (const auto& [offered, installed, versions, is_minor] : cases) {
        session.set_property(L"ProductVersion", offered);
        session.set_property(L"INSTALLED_APP_VERSION", installed);
        session.set_property(L"IS_MINOR_UPGRADE", is_minor ? L"" : L"1");
        EXPECT_EQ(library.call("check_upgrade_type", session.handle()), 0U);
        EXPECT_EQ(session.property(L"IS_MINOR_UPGRADE"), is_minor ? std::optional{L"1"} : std::nullopt);
        EXPECT_EQ(
            session.messages().at(session.messages().size() - 2).text,
            std::wstring{L"Custom action: check_upgrade_type: "} + versions);
    }
}

TEST_F(SmallActions, show_the_restart_notice)
{
    EXPECT_EQ(library.call("notify_restart_recommended", session.handle()), 0U);
    EXPECT_EQ(
        session.messages().back(),
        (posted_message{
            0x03000040, L"Quorbel has been removed.\n\nPlease restart when it is convenient for you."}));
}

TEST_F(SmallActions, tell_the_state_of_smart_app_control)
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const auto told = [&](char state, DWORD type) {
        plant_value(
            HKEY_LOCAL_MACHINE,
            LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)",
            L"VerifiedAndReputablePolicyState",
            std::string{state, '\0', '\0', '\0'},
            type);
        EXPECT_EQ(library.call("log_app_control_state", session.handle()), 0U);
        return session.messages().back().text;
    };
    EXPECT_EQ(
        told(1, REG_DWORD),
        L"Smart App Control: ON and enforcing - binaries without Microsoft reputation are blocked from "
        L"loading (VerifiedAndReputablePolicyState=1, RegGetValueW returned 0).");
    EXPECT_THAT(told(0, REG_DWORD), testing::HasSubstr(L": off (VerifiedAndReputablePolicyState=0, "));
    EXPECT_THAT(told(2, REG_DWORD), testing::HasSubstr(L": evaluation mode - "));
    EXPECT_THAT(told(7, REG_DWORD), testing::HasSubstr(L": unrecognised state ("));
    EXPECT_EQ(
        told(1, REG_BINARY),
        L"Smart App Control: not reported by this Windows build (VerifiedAndReputablePolicyState=absent, "
        L"RegGetValueW returned 1630).");
}

} // namespace
} // namespace test_support
