// early_close_upgrade and recover_early_upgrade in the built library: what their failures become.

#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace test_support {
namespace {

using testing::ElementsAre;

TEST(EarlyCloseActions, log_their_failures_and_post_no_error)
{
    const loaded_library library;
    scripted_session session{library.module()};
    EXPECT_EQ(library.call("early_close_upgrade", session.handle()), 1603U);
    EXPECT_EQ(library.call("recover_early_upgrade", session.handle()), 0U) << "nothing was closed";
    session.set_property(L"QblEarlyRecoveryTask", L"QBL-EarlyRecovery-");
    EXPECT_EQ(library.call("recover_early_upgrade", session.handle()), 1603U);
    session.fail(installer_call::get_property);
    EXPECT_EQ(library.call("recover_early_upgrade", session.handle()), 1603U);
    constexpr UINT information = 0x04000000;
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            posted_message{
                information, L"Controlled upgrade: Early closure failed: Invalid upgrade transaction data"},
            posted_message{
                information, L"Controlled upgrade: Early recovery failed: Invalid early recovery identity"},
            posted_message{
                information, L"Controlled upgrade: Early recovery failed: Cannot read installer property"}));
}

} // namespace
} // namespace test_support
