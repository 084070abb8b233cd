// main() of every test program. A test that hangs ends the program with its name; a crash ends it at once,
// without a debugger or a dialog.

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
constexpr UINT TIMED_OUT = 3;

std::string running_test = "(no test)";

// The system's timer, since a test may fake this program's clock and waits.
HANDLE timer = nullptr;

void CALLBACK time_out(void*, BOOLEAN)
{
    std::fprintf(stderr, "\n[  TIMEOUT ] %s: over its time limit\n", running_test.c_str());
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), TIMED_OUT);
}

class watchdog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override
    {
        running_test = std::string{test.test_suite_name()} + "." + test.name();
        test_support::allow_test(DEFAULT_LIMIT);
    }
};

// The runtime opens handles with its first exception, and the system with a user's first environment: opens
// them now, so that no test counts them.
void open_lasting_handles()
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
    open_lasting_handles();
    CreateTimerQueueTimer(&timer, nullptr, time_out, nullptr, INFINITE, 0, WT_EXECUTEONLYONCE);

    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog);
    return RUN_ALL_TESTS();
}
