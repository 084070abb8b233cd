#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "support/real_session.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace custom_actions {
namespace {

TEST(ExportBoundary, reports_any_text_and_works_without_a_session_or_memory)
{
    const test_support::real_session session;
    const auto fail = [] { throw windows_error{"No \xC3\xA9", ERROR_ACCESS_DENIED}; };
    const auto no_memory = [](MSIHANDLE, const std::wstring&) { throw std::bad_alloc{}; };
    EXPECT_EQ(run_action(session.handle(), report_error_record, fail), 1603U);
    EXPECT_EQ(session.messages().at(0).text, L"No \xFFC3\xFFA9");
    EXPECT_EQ(run_action(0, report_upgrade_failure, fail), 1603U);
    EXPECT_EQ(run_action(0, no_memory, fail), 1603U);
    EXPECT_EQ(run_harmless_action(fail), 0U);
    const std::wstring value(5000, L'x');
    MsiSetPropertyW(session.handle(), L"LONG", value.c_str());
    EXPECT_EQ(read_property(session.handle(), L"LONG"), value);
}

} // namespace
} // namespace custom_actions
