// The main program of every test program. A test that hangs ends the program, with its name, and one that
// crashes at once: nothing waits for a debugger or a dialog that nobody sees.

#include "custom_actions/common/scoped_handle.h"
#include "tests/support/test_limit.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <userenv.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

namespace {

constexpr std::chrono::minutes DEFAULT_LIMIT{1};
constexpr UINT BROKEN_OFF = 3;

std::string running_test = "(no test)";

// One of the system's own, since a test may have clocks and waits of this program played.
HANDLE timer = nullptr;

void CALLBACK break_off(void*, BOOLEAN)
{
    std::fprintf(stderr, "\n[  BROKEN  ] %s: over its time limit\n", running_test.c_str());
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), BROKEN_OFF);
}

class watchdog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override
    {
        running_test = std::string{test.test_suite_name()} + "." + test.name();
        test_support::allow_test(DEFAULT_LIMIT);
    }
};

// With its first exception the runtime opens handles of its own, and so does the system with the first
// environment of a user; no test is to count them.
void open_what_stays_open()
{
    try {
        throw std::exception{};
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): see above
    }
    custom_actions::kernel_handle token;
    void* environment = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, token.put()) &&
        CreateEnvironmentBlock(&environment, token.get(), FALSE)) {
        DestroyEnvironmentBlock(environment);
    }
}

} // namespace

namespace test_support {

void allow_test(std::chrono::milliseconds limit)
{
    ChangeTimerQueueTimer(nullptr, timer, static_cast<ULONG>(limit.count()), 0);
}

} // namespace test_support

int main(int argc, char** argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    open_what_stays_open();
    CreateTimerQueueTimer(&timer, nullptr, break_off, nullptr, INFINITE, 0, WT_EXECUTEONLYONCE);

    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog);
    return RUN_ALL_TESTS();
}
