#include "tests/support/call_sweep.h"
#include "tests/support/child_process.h"
#include "tests/support/loaded_library.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace test_support {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class CallSweep : public testing::Test {
protected:
    UINT call(const char* action) { return library.call(action, session.handle()); }

    [[nodiscard]] std::vector<std::string_view> functions() const
    {
        std::vector<std::string_view> names;
        std::ranges::transform(sweep.calls(), std::back_inserter(names), &call_sweep::counted_call::function);
        return names;
    }

    registry_sandbox machine{HKEY_LOCAL_MACHINE};
    registry_sandbox user{HKEY_CURRENT_USER};
    loaded_library library;
    scripted_session session{library.module()};
    call_sweep sweep{library.module()};
};

TEST_F(CallSweep, counts_each_call_once_and_passes_it_on_whole)
{
    for (int run = 0; run != 2; ++run) {
        sweep.let_pass();
        EXPECT_EQ(call("log_app_control_state"), 0U);
        EXPECT_THAT(
            functions(),
            ElementsAre(
                "RegGetValueW",
                "MsiCreateRecord",
                "MsiRecordSetStringW",
                "MsiProcessMessage",
                "MsiCloseHandle"));
        EXPECT_EQ(sweep.failed(), 0U);
    }
    EXPECT_THAT(session.messages().back().text, HasSubstr(L"returned 2)")) << "seven arguments, and a result";
}

TEST_F(CallSweep, lets_the_nth_call_fail_once_or_from_there_on)
{
    struct row {
        std::size_t nth;
        call_sweep::lasting how;
        std::size_t failed;
        UINT code;
    };

    // A drive each from the first call on, and the messages behind them.
    constexpr auto once = call_sweep::lasting::once;
    constexpr auto staying = call_sweep::lasting::staying;
    call("iconhandler_remove_registry");
    const auto names = functions();
    const auto drives = std::ranges::count(names, "IsWow64Process");
    ASSERT_EQ(drives, 26);
    const auto first = static_cast<std::size_t>(std::ranges::find(names, "IsWow64Process") - names.begin());
    for (const auto& [nth, how, failed, code] : {
             row{first + 2, once, 1, 1603}, // RegOpenKeyExW of drive A
             row{first + 2, staying, 26, 1603},
             row{first + 1, staying, 26, 0},
             row{names.size() - 1, once, 1, 0},
             row{names.size() + 1, once, 0, 0},
             row{names.size() - 4, once, 0, 0}, // SHChangeNotify cannot fail
         }) {
        sweep.fail_at(nth, how);
        EXPECT_EQ(call("iconhandler_remove_registry"), code) << nth;
        EXPECT_EQ(sweep.failed(), failed) << nth;
    }
    EXPECT_EQ(names[names.size() - 5], "SHChangeNotify");
    EXPECT_EQ(session.open_records(), 0U) << "what closes is closed, whatever it returns";
}

TEST_F(CallSweep, tells_the_places_of_a_function_apart)
{
    sweep.let_pass();
    call("restore_built_in_new_context_menu");
    const auto& calls = sweep.calls();
    ASSERT_THAT(calls, testing::SizeIs(9)); // two lines of four calls, a key between them
    EXPECT_EQ(calls[0].function, calls[5].function);
    EXPECT_NE(calls[0].place, calls[5].place);
    const std::size_t place = calls[0].place;
    sweep.let_pass();
    call("restore_built_in_new_context_menu");
    EXPECT_EQ(sweep.calls()[0].place, place);
}

TEST(Fault, DISABLED_ends_at_the_second_call)
{
    const loaded_library library;
    call_sweep sweep{library.module()};
    sweep.end_process_at("RegGetValueW", 2, 77);
    library.call("log_app_control_state", 0);
    library.call("log_app_control_state", 0);
}

TEST(CallSweepEnd, ends_the_process_with_the_code)
{
    const std::wstring command =
        L"\"" + this_program() +
        L"\" --gtest_also_run_disabled_tests --gtest_filter=Fault.DISABLED_ends_at_the_second_call";
    EXPECT_EQ(run_child(command, std::chrono::seconds{30}).exit_code, 77U);
}

TEST(CallSweepTable, names_an_import_that_it_does_not_know)
{
    try {
        const call_sweep refused{GetModuleHandleW(nullptr)};
        FAIL() << "the test program itself calls more than the library";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr(" LoadLibraryExW"));
        EXPECT_THAT(error.what(), testing::Not(HasSubstr("RegOpenKeyExW")));
    }
}

} // namespace
} // namespace test_support
