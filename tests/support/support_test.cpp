// The watchdog over every test.

#include "support/child_process.h"
#include "tests/support/test_limit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace test_support {
namespace {

// Runs in a process of its own, started by the case below.
TEST(Fault, DISABLED_hangs)
{
    allow_test(std::chrono::milliseconds{300});
    Sleep(INFINITE);
}

TEST(HungTest, is_ended_with_its_name)
{
    const child_result child = run_child(
        L"\"" + this_program() + L"\" --gtest_also_run_disabled_tests --gtest_filter=*.DISABLED_hangs",
        std::chrono::seconds{30});
    EXPECT_EQ(child.exit_code, 3U);
    EXPECT_THAT(child.output, testing::HasSubstr("[  BROKEN  ] Fault.DISABLED_hangs: over its time limit"));
}

} // namespace
} // namespace test_support
