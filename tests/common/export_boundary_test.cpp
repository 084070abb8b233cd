#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "support/real_session.h"
#include "tests/support/test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>

namespace custom_actions {
namespace {

using test_support::posted_message;

UINT fail()
{
    throw windows_error{"No \xC3\xA9", ERROR_ACCESS_DENIED};
}

TEST(ExportBoundary, turns_an_exception_into_messages_and_a_code)
{
    const test_support::test_session session{GetModuleHandleW(nullptr)};
    EXPECT_EQ(run_action(session.handle(), report_upgrade_failure, fail), 1603U);
    EXPECT_EQ(run_action(0, report_upgrade_failure, fail), 1603U) << "without a session";
    EXPECT_THAT(
        session.messages(),
        testing::ElementsAre(
            posted_message{0x04000000, L"Controlled upgrade: No \xFFC3\xFFA9"},
            posted_message{0x01000000, L"Quorbel upgrade: No \xFFC3\xFFA9"}));
    const auto no_memory = [](MSIHANDLE, const std::wstring&) { throw std::bad_alloc{}; };
    EXPECT_EQ(run_action(0, no_memory, fail), 1603U);
    EXPECT_EQ(run_harmless_action(fail), 0U);
}

TEST(Property, is_read_at_every_length)
{
    const test_support::real_session session;
    for (const std::size_t length : {0U, 1U, 254U, 5000U}) {
        const std::wstring value(length, L'x');
        EXPECT_EQ(MsiSetPropertyW(session.handle(), L"LONG", value.c_str()), UINT{ERROR_SUCCESS});
        EXPECT_EQ(read_property(session.handle(), L"LONG"), value);
    }
}

} // namespace
} // namespace custom_actions
