// check_upgrade_type and notify_restart_recommended, called in the built library.

#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class VersionActions : public testing::Test {
protected:
    // What the action logged, without its prefix.
    std::vector<std::wstring> check(const std::wstring& offered, const std::wstring& installed)
    {
        session.set_property(L"ProductVersion", offered);
        session.set_property(L"INSTALLED_APP_VERSION", installed);
        const std::size_t before = session.messages().size();
        EXPECT_EQ(library.call("check_upgrade_type", session.handle()), 0U);
        return lines_since(before);
    }

    std::vector<std::wstring> lines_since(std::size_t before)
    {
        static const std::wstring prefix = L"Custom action: check_upgrade_type: ";
        std::vector<std::wstring> lines;
        for (auto message = session.messages().begin() + static_cast<std::ptrdiff_t>(before);
             message != session.messages().end();
             ++message) {
            EXPECT_EQ(message->type, 0x04000000U);
            EXPECT_TRUE(message->text.starts_with(prefix));
            lines.push_back(message->text.substr(prefix.size()));
        }
        return lines;
    }

    loaded_library library;
    scripted_session session{library.module()};
};

TEST_F(VersionActions, tell_a_minor_upgrade)
{
    EXPECT_THAT(
        check(L"1.4.2.0", L"1.4.1.7"),
        ElementsAre(
            L"Starting version check...",
            L"Found INSTALLED_APP_VERSION in registry.",
            L"New: 1.4.2.0 Old: 1.4.1.7",
            L"Detected MINOR upgrade."));
    EXPECT_EQ(session.property(L"IS_MINOR_UPGRADE"), L"1");
}

TEST_F(VersionActions, clear_the_mark_of_a_minor_upgrade_in_a_major_one)
{
    session.set_property(L"IS_MINOR_UPGRADE", L"1");
    EXPECT_THAT(
        check(L"1.5.0.0", L"1.4.9.9"),
        ElementsAre(
            L"Starting version check...",
            L"Found INSTALLED_APP_VERSION in registry.",
            L"New: 1.5.0.0 Old: 1.4.9.9",
            L"Detected MAJOR/MODERATE upgrade."));
    EXPECT_EQ(session.property(L"IS_MINOR_UPGRADE"), std::nullopt);
}

TEST_F(VersionActions, fall_back_to_the_first_version_where_none_is_known)
{
    EXPECT_THAT(
        check(L"0.1.20", L""),
        ElementsAre(
            L"Starting version check...",
            L"INSTALLED_APP_VERSION not found. Falling back to 0.1.16.0.",
            L"New: 0.1.20.0 Old: 0.1.16.0",
            L"Detected MINOR upgrade."));
    EXPECT_EQ(check(L"1.0.0.0", L"").back(), L"Detected MAJOR/MODERATE upgrade.");
    EXPECT_EQ(check(L"", L"").at(2), L"New: 0.0.0.0 Old: 0.1.16.0");
}

TEST_F(VersionActions, cut_a_version_that_is_longer_than_the_buffer)
{
    const std::wstring fits = L"1.4.2." + std::wstring(55, L'0') + L"12"; // 63 characters
    ASSERT_EQ(fits.size(), 63U);
    EXPECT_EQ(check(fits, L"1.4").at(2), L"New: 1.4.2.12 Old: 1.4.0.0");
    EXPECT_EQ(check(fits + L"345", fits + L"345").at(2), L"New: 1.4.2.12 Old: 1.4.2.12");
}

TEST_F(VersionActions, go_on_where_the_installer_refuses)
{
    struct {
        installer_call call;
        unsigned nth;
        const wchar_t* verdict;
    } const cases[]{
        {installer_call::get_property, 1, L"New: 0.0.0.0 Old: 1.4.1.0"},
        {installer_call::get_property, 2, L"New: 1.4.2.0 Old: 0.1.16.0"},
        {installer_call::set_property, 1, L"New: 1.4.2.0 Old: 1.4.1.0"},
    };

    for (const auto& [call, nth, verdict] : cases) {
        session.fail(call, ERROR_FUNCTION_FAILED, nth);
        EXPECT_EQ(check(L"1.4.2", L"1.4.1").at(2), verdict);
    }
    session.fail(installer_call::create_record);
    EXPECT_THAT(check(L"1.4.2", L"1.4.1"), IsEmpty());
    EXPECT_EQ(session.property(L"IS_MINOR_UPGRADE"), L"1") << "decided without a log as with one";
}

TEST_F(VersionActions, use_one_record_for_all_lines)
{
    check(L"1.4.2", L"1.4.1");
    EXPECT_EQ(std::ranges::count(session.calls(), "MsiCreateRecord(1)"), 1);
    EXPECT_EQ(session.calls().front(), "MsiCreateRecord(1)");
    EXPECT_EQ(session.calls().back(), "MsiCloseHandle(record)");
}

TEST_F(VersionActions, show_the_restart_notice)
{
    EXPECT_EQ(library.call("notify_restart_recommended", session.handle()), 0U);
    EXPECT_THAT(
        session.messages(),
        ElementsAre(posted_message{
            0x03000040, L"Quorbel has been removed.\n\nPlease restart when it is convenient for you."}));

    session.fail(installer_call::process_message);
    EXPECT_EQ(library.call("notify_restart_recommended", session.handle()), 0U);
    session.fail(installer_call::create_record);
    EXPECT_EQ(library.call("notify_restart_recommended", session.handle()), 0U);
    EXPECT_EQ(session.messages().size(), 1U);
}

TEST_F(VersionActions, succeed_without_a_session)
{
    EXPECT_EQ(library.call("check_upgrade_type", 0), 0U);
    EXPECT_EQ(library.call("notify_restart_recommended", 0), 0U);
    EXPECT_THAT(session.messages(), IsEmpty());
}

} // namespace
} // namespace test_support
