#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "tests/support/call_sweep.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace test_support {
namespace {

TEST(CallSweep, lets_the_nth_call_fail_once_or_from_there_on)
{
    using fault = call_sweep::fault;
    const registry_sandbox user{HKEY_CURRENT_USER};
    const loaded_library library;
    scripted_session session{library.module()};
    call_sweep sweep{library.module()};
    for (const auto& [nth, what, failed] :
         {std::tuple{1U, fault::passing, 1U},
          {1U, fault::staying, 2U},
          {4U, fault::staying, 2U},
          {6U, fault::staying, 1U},
          {0U, fault::passing, 0U}}) {
        sweep.plan(nth, what);
        EXPECT_EQ(library.call("restore_built_in_new_context_menu", session.handle()), 0U);
        EXPECT_EQ(sweep.failed(), failed) << nth;
        EXPECT_EQ(session.open_records(), 0U) << "what closes is closed, whatever it returns";
    }
    const auto& calls = sweep.calls(); // two lines of four calls, a key between them
    ASSERT_THAT(calls, testing::SizeIs(9));
    EXPECT_EQ(calls[0].function, calls[5].function);
    EXPECT_NE(calls[0].place, calls[5].place);
}

TEST(CallSweep, names_an_import_that_no_rule_knows)
{
    try {
        const call_sweep refused{GetModuleHandleW(nullptr)};
        FAIL() << "the test program itself calls more than the library";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr(" LoadLibraryExW"));
    }
}

} // namespace
} // namespace test_support
