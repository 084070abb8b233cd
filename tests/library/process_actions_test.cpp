// restore_explorer in the built library: its record, and what its failures become.

#include "tests/support/failing_import.h"
#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace test_support {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ProcessActions : public testing::Test {
protected:
    UINT restore(const std::wstring& record)
    {
        session.set_property(L"CustomActionData", record);
        return library.call("restore_explorer", session.handle());
    }

    loaded_library library;
    scripted_session session{library.module()};
};

TEST_F(ProcessActions, complete_where_there_is_nothing_to_bring_back)
{
    EXPECT_EQ(restore(L"unchanged"), 0U);
    EXPECT_THAT(
        session.messages(),
        ElementsAre(posted_message{
            0x04000000, L"Explorer restoration completed for the original interactive session."}));
}

TEST_F(ProcessActions, post_one_error_for_a_record_that_is_none)
{
    const std::wstring long_record = L"1|" + std::wstring(254, L'S');
    EXPECT_EQ(restore(long_record.substr(0, 255)), 1603U);
    EXPECT_EQ(restore(long_record), 1603U);
    EXPECT_EQ(restore(L""), 1603U);
    EXPECT_EQ(restore(L"4294967296|S-1-5-21"), 1603U);
    session.fail(installer_call::get_property);
    EXPECT_EQ(restore(L"unchanged"), 1603U);
    constexpr UINT error = 0x01000000;
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            posted_message{error, L"Explorer session user changed during installation"},
            posted_message{error, L"Cannot read Explorer restoration data"},
            posted_message{error, L"Invalid Explorer session data"},
            posted_message{error, L"stoul argument out of range"},
            posted_message{error, L"Cannot read Explorer restoration data"}));
}

TEST_F(ProcessActions, close_nothing_and_say_nothing_without_a_record)
{
    const failing_import<"OpenThreadToken", decltype(OpenThreadToken)> fault{
        library.module(), FALSE, {ERROR_ACCESS_DENIED}};
    EXPECT_EQ(library.call("close_and_kill_our_processes", session.handle()), 1603U);
    EXPECT_THAT(session.calls(), IsEmpty());
}

} // namespace
} // namespace test_support
