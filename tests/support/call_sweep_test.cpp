#include "tests/support/call_sweep.h"
#include "tests/support/loaded_library.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace test_support {
namespace {

TEST(CallSweep, counts_the_calls_and_lets_the_nth_fail_once_or_from_there_on)
{
    constexpr auto once = call_sweep::lasting::once;
    constexpr auto staying = call_sweep::lasting::staying;
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const registry_sandbox user{HKEY_CURRENT_USER};
    const loaded_library library;
    scripted_session session{library.module()};
    call_sweep sweep{library.module()};
    const auto call = [&](const char* action) { return library.call(action, session.handle()); };

    sweep.fail_at(0, once);
    EXPECT_EQ(call("log_app_control_state"), 0U);
    std::string functions;
    for (const auto& counted : sweep.calls()) {
        functions += counted.function + ' ';
    }
    EXPECT_EQ(
        functions, "RegGetValueW MsiCreateRecord MsiRecordSetStringW MsiProcessMessage MsiCloseHandle ");
    EXPECT_THAT(session.messages().back().text, testing::HasSubstr(L"returned 2)")) << "passed on whole";

    sweep.fail_at(0, once);
    call("restore_built_in_new_context_menu");
    const auto calls = sweep.calls(); // two lines of four calls, a key between them
    ASSERT_THAT(calls, testing::SizeIs(9));
    EXPECT_EQ(calls[0].function, calls[5].function);
    EXPECT_NE(calls[0].place, calls[5].place);
    for (const auto& [nth, how, failed] :
         {std::tuple{1U, once, 1U},
          {1U, staying, 2U},
          {4U, staying, 2U},
          {6U, staying, 1U},
          {10U, once, 0U}}) {
        sweep.fail_at(nth, how);
        EXPECT_EQ(call("restore_built_in_new_context_menu"), 0U);
        EXPECT_EQ(sweep.failed(), failed) << nth;
        EXPECT_EQ(sweep.calls()[0].place, calls[0].place) << nth;
        EXPECT_EQ(session.open_records(), 0U) << "what closes is closed, whatever it returns";
    }

    try {
        const call_sweep refused{GetModuleHandleW(nullptr)};
        FAIL() << "the test program itself calls more than the library";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr(" LoadLibraryExW"));
        EXPECT_THAT(error.what(), testing::Not(testing::HasSubstr("RegOpenKeyExW")));
    }
}

} // namespace
} // namespace test_support
