// The watchdog over every test.

#include "support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace test_support {
namespace {

// The faults that a test may have; each runs in a process of its own, started by the case below.
TEST(Fault, DISABLED_hangs)
{
    Sleep(INFINITE);
}

TEST(Fault, DISABLED_crashes)
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

TEST(BrokenTest, ends_at_once_with_its_name)
{
    SetEnvironmentVariableW(L"TEST_LIMIT_MS", L"300");
    for (const std::string report : {"hangs: over its time limit", "crashes: crashed, 0xC0000005"}) {
        const std::wstring name{report.begin(), std::ranges::find(report, ':')};
        const child_result child = run_child(
            L"\"" + this_program() + L"\" --gtest_also_run_disabled_tests --gtest_filter=*.DISABLED_" + name,
            std::chrono::seconds{30});
        EXPECT_EQ(child.exit_code, 3U);
        EXPECT_THAT(child.output, testing::HasSubstr("[  BROKEN  ] Fault.DISABLED_" + report));
    }
    SetEnvironmentVariableW(L"TEST_LIMIT_MS", nullptr);
}

} // namespace
} // namespace test_support
