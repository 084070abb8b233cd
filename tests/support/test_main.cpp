// The main program of every test program. A test that hangs ends the program, with its name, and one that
// crashes at once: nothing waits for a debugger or a dialog that nobody sees.

#include "custom_actions/common/scoped_handle.h"
#include "tests/support/test_limit.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <userenv.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

namespace {

constexpr DWORD DEFAULT_LIMIT = 60'000; // milliseconds
constexpr UINT BROKEN_OFF = 3;

std::string running_test = "(no test)";

std::atomic<DWORD> limit_of_test; // in milliseconds

// Asks no clock, and waits as nothing else does: a test may have these played.
void break_off_when_over_time(HANDLE ended)
{
    constexpr DWORD part = 100;
    for (DWORD waited = 0; waited < limit_of_test; waited += part) {
        if (WaitForSingleObjectEx(ended, part, FALSE) != WAIT_TIMEOUT) {
            return;
        }
    }
    std::fprintf(stderr, "\n[  BROKEN  ] %s: over its time limit\n", running_test.c_str());
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), BROKEN_OFF);
}

class watchdog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override
    {
        running_test = std::string{test.test_suite_name()} + "." + test.name();
        limit_of_test = DEFAULT_LIMIT;
        ended_ = custom_actions::kernel_handle{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
        timer_ = std::jthread{break_off_when_over_time, ended_.get()};
    }

    void OnTestEnd(const testing::TestInfo&) override
    {
        SetEvent(ended_.get());
        timer_.join();
    }

    custom_actions::kernel_handle ended_;
    std::jthread timer_;
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
    limit_of_test = static_cast<DWORD>(limit.count());
}

} // namespace test_support

int main(int argc, char** argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    open_what_stays_open();

    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog);
    return RUN_ALL_TESTS();
}
