#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "tests/support/faults.h"
#include "tests/support/real_session.h"
#include "tests/support/scripted_session.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::posted_message;

constexpr UINT LINE = 0x04000000;
constexpr UINT ERROR_BOX = 0x01000000;

UINT fail()
{
    throw windows_error{"No \xC3\xA9", ERROR_ACCESS_DENIED};
}

TEST(ExportBoundary, reports_an_exception_as_the_family_of_the_action_does)
{
    struct {
        UINT (*run)(MSIHANDLE session);
        std::vector<posted_message> reported;
    } const families[]{
        {[](MSIHANDLE session) { return run_action(session, report_upgrade_failure, fail); },
         {{LINE, L"Controlled upgrade: No \xFFC3\xFFA9"}, {ERROR_BOX, L"Quorbel upgrade: No \xFFC3\xFFA9"}}},
        {[](MSIHANDLE session) { return run_action(session, report_early_close_failure, fail); },
         {{LINE, L"Controlled upgrade: Early closure failed: No \xFFC3\xFFA9"}}},
        {[](MSIHANDLE session) { return run_action(session, report_early_recovery_failure, fail); },
         {{LINE, L"Controlled upgrade: Early recovery failed: No \xFFC3\xFFA9"}}},
        {[](MSIHANDLE session) { return run_action(session, report_error_record, fail); },
         {{ERROR_BOX, L"No \xFFC3\xFFA9"}}},
        {[](MSIHANDLE session) { return run_action(session, report_action_line{L"it"}, fail); },
         {{LINE, L"Custom action: it: No \xFFC3\xFFA9"}}},
    };

    for (const auto& [run, reported] : families) {
        const test_support::scripted_session session{GetModuleHandleW(nullptr)};
        EXPECT_EQ(run(session.handle()), 1603U);
        EXPECT_EQ(run(0), 1603U);
        EXPECT_EQ(session.messages(), reported);
    }
    const auto no_memory = [](MSIHANDLE, const std::wstring&) { throw std::bad_alloc{}; };
    EXPECT_EQ(run_action(0, no_memory, fail), 1603U);
    EXPECT_EQ(run_harmless_action(fail), 0U);
}

TEST(Property, is_read_at_every_length)
{
    const test_support::real_session session;
    for (const std::size_t length : {0U, 1U, 254U, 5000U}) {
        const std::wstring value(length, L'x');
        EXPECT_EQ(MsiSetPropertyW(session.handle(), L"LONG", value.c_str()), ERROR_SUCCESS);
        EXPECT_EQ(read_property(session.handle(), L"LONG"), value);
    }
}

TEST(Property, that_cannot_be_read_is_told)
{
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
    for (const unsigned nth : {1U, 2U}) {
        session.fail(test_support::installer_call::get_property, ERROR_FUNCTION_FAILED, nth);
        EXPECT_EQ(
            test_support::thrown_by([&] { read_property(session.handle(), L"CustomActionData"); }),
            "Cannot read installer property (1627)");
    }
}

} // namespace
} // namespace custom_actions
