// check_upgrade_type and notify_restart_recommended, called in the built library.

#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"

#include <gtest/gtest.h>

#include <string>

namespace test_support {
namespace {

TEST(VersionActions, tell_a_minor_upgrade_by_the_first_two_numbers)
{
    const loaded_library library;
    scripted_session session{library.module()};
    const std::wstring fits = L"1.4.2." + std::wstring(55, L'0') + L"12"; // 63 characters

    struct {
        std::wstring offered;
        std::wstring installed;
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
        {fits, fits + L"345", L"New: 1.4.2.12 Old: 1.4.2.12", true},
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

TEST(VersionActions, show_the_restart_notice)
{
    const loaded_library library;
    const scripted_session session{library.module()};
    EXPECT_EQ(library.call("notify_restart_recommended", session.handle()), 0U);
    EXPECT_EQ(
        session.messages().back(),
        (posted_message{
            0x03000040, L"Quorbel has been removed.\n\nPlease restart when it is convenient for you."}));
}

} // namespace
} // namespace test_support
