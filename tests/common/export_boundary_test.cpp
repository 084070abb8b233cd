#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/windows_error.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::installer_call;
using test_support::posted_message;
using testing::ElementsAre;

constexpr UINT LINE = 0x04000000;
constexpr UINT ERROR_BOX = 0x01000000;

struct family {
    const char* name;
    std::function<UINT(MSIHANDLE, const std::function<UINT()>&)> run;
    std::vector<posted_message> reported; // when the body throws "Cannot do it"
    UINT code;
};

void PrintTo(const family& tested, std::ostream* out)
{
    *out << tested.name;
}

template <class Report>
auto run_with(Report report)
{
    return [report](MSIHANDLE session, const std::function<UINT()>& body) {
        return run_action(session, report, body);
    };
}

std::vector<family> families()
{
    return {
        {.name = "controlled_upgrade",
         .run = run_with(report_upgrade_failure),
         .reported =
             {{LINE, L"Controlled upgrade: Cannot do it"}, {ERROR_BOX, L"Quorbel upgrade: Cannot do it"}},
         .code = 1603},
        {.name = "early_close",
         .run = run_with(report_early_close_failure),
         .reported = {{LINE, L"Controlled upgrade: Early closure failed: Cannot do it"}},
         .code = 1603},
        {.name = "error_record",
         .run = run_with(report_error_record),
         .reported = {{ERROR_BOX, L"Cannot do it"}},
         .code = 1603},
        {.name = "action_line",
         .run = run_with(report_action_line{L"some_action"}),
         .reported = {{LINE, L"Custom action: some_action: Cannot do it"}},
         .code = 1603},
        {.name = "harmless",
         .run = [](MSIHANDLE, const std::function<UINT()>& body) { return run_harmless_action(body); },
         .reported = {},
         .code = 0},
    };
}

class ExportBoundary : public testing::TestWithParam<family> {
protected:
    UINT run(const std::function<UINT()>& body) { return GetParam().run(session.handle(), body); }

    test_support::scripted_session session{GetModuleHandleW(nullptr)};
};

TEST_P(ExportBoundary, reports_an_exception_as_its_family_does)
{
    EXPECT_EQ(run([]() -> UINT { throw std::runtime_error{"Cannot do it"}; }), GetParam().code);
    EXPECT_EQ(session.messages(), GetParam().reported);
}

TEST_P(ExportBoundary, logs_the_fixed_text_of_a_windows_error_alone)
{
    EXPECT_EQ(
        run([]() -> UINT { throw windows_error{"Cannot do it", ERROR_ACCESS_DENIED}; }), GetParam().code);
    EXPECT_EQ(session.messages(), GetParam().reported);
}

TEST_P(ExportBoundary, stops_every_standard_exception)
{
    EXPECT_EQ(run([]() -> UINT { throw std::bad_alloc{}; }), GetParam().code);
    EXPECT_EQ(
        run([]() -> UINT { throw std::filesystem::filesystem_error{"no file", std::error_code{}}; }),
        GetParam().code);
}

TEST_P(ExportBoundary, needs_no_session_and_no_record)
{
    const auto fail = []() -> UINT { throw std::runtime_error{"Cannot do it"}; };
    EXPECT_EQ(GetParam().run(0, fail), GetParam().code);
    if (!GetParam().reported.empty()) {
        session.fail(installer_call::create_record);
    }
    EXPECT_EQ(run(fail), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Families, ExportBoundary, testing::ValuesIn(families()), [](const auto& tested) {
    return std::string{tested.param.name};
});

TEST(ExportBoundaryCode, is_the_bodys_own_when_nothing_is_thrown)
{
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
    EXPECT_EQ(
        run_action(session.handle(), report_error_record, [] { return UINT{ERROR_INVALID_PARAMETER}; }), 87U);
    EXPECT_THAT(session.calls(), testing::IsEmpty());
}

TEST(ExportBoundaryCode, survives_a_report_that_throws)
{
    const auto report = [](MSIHANDLE, const std::wstring&) { throw std::bad_alloc{}; };
    EXPECT_EQ(run_action(0, report, []() -> UINT { throw std::bad_alloc{}; }), 1603U);
}

TEST(ErrorRecordFamily, posts_one_error_for_a_property_that_cannot_be_read)
{
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
    session.fail(installer_call::get_property);
    const UINT code = run_action(session.handle(), report_error_record, [&] {
        read_property(session.handle(), L"CustomActionData");
        return UINT{ERROR_SUCCESS};
    });
    EXPECT_EQ(code, 1603U);
    EXPECT_THAT(
        session.messages(), ElementsAre(posted_message{ERROR_BOX, L"Cannot read installer property"}));
}

TEST(Widen, takes_each_byte_as_a_signed_number)
{
    EXPECT_EQ(widen("Cannot open \x7F"), L"Cannot open \x7F");
    EXPECT_EQ(widen("\x80\xC3\xA9\xFF"), L"\xFF80\xFFC3\xFFA9\xFFFF");
    EXPECT_EQ(widen(""), L"");
}

} // namespace
} // namespace custom_actions
