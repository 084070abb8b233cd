#include "custom_actions/common/installer_session.h"
#include "tests/support/faults.h"
#include "tests/support/real_session.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace custom_actions {
namespace {

using test_support::installer_call;
using test_support::posted_message;

TEST(InstallerSession, takes_lines_and_gives_properties_of_every_length)
{
    const test_support::real_session session;
    for (const std::size_t length : {0U, 1U, 254U, 5000U}) {
        const std::wstring value(length, L'x');
        ASSERT_EQ(MsiSetPropertyW(session.handle(), L"LONG", value.c_str()), ERROR_SUCCESS);
        EXPECT_EQ(read_property(session.handle(), L"LONG"), value);
    }
    msi_log(session.handle(), L"a line");
    upgrade_log(session.handle(), L"a step");
    EXPECT_THAT(
        session.messages(),
        testing::ElementsAre(
            posted_message{0x04000000, L"a line"},
            posted_message{0x04000000, L"Controlled upgrade: a step"}));
}

TEST(InstallerSession, fails_where_a_property_cannot_be_read_and_only_there)
{
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
    for (const unsigned nth : {1U, 2U}) {
        session.fail(installer_call::get_property, ERROR_MORE_DATA + 1, nth);
        EXPECT_EQ(
            test_support::thrown_by([&] { read_property(session.handle(), L"CustomActionData"); }),
            "Cannot read installer property (235)");
    }
    session.fail(installer_call::create_record);
    msi_log(session.handle(), L"a line");
    msi_log(0, L"a line");
    upgrade_log(0, L"a step");
    EXPECT_THAT(session.messages(), testing::IsEmpty());
}

} // namespace
} // namespace custom_actions
