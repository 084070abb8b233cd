// The main program of every test program. A test that hangs, crashes or loses an exception ends the program
// at once, with its name: nothing waits for a debugger or a dialog that nobody sees.

#include "custom_actions/common/scoped_handle.h"
#include "tests/support/test_limit.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <userenv.h>

#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

namespace {

constexpr DWORD DEFAULT_LIMIT_MS = 60'000;
constexpr UINT BROKEN_OFF = 3;

std::string running_test = "(no test)";

[[noreturn]] void break_off(const char* why)
{
    std::fprintf(stderr, "\n[  BROKEN  ] %s: %s\n", running_test.c_str(), why);
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), BROKEN_OFF);
    std::abort(); // not reached
}

LONG WINAPI on_crash(EXCEPTION_POINTERS* exception)
{
    char why[32];
    std::snprintf(why, sizeof why, "crashed, 0x%08lX", exception->ExceptionRecord->ExceptionCode);
    break_off(why);
}

[[noreturn]] void on_lost_exception()
{
    std::string why = "lost an exception";
    if (const auto lost = std::current_exception()) {
        try {
            std::rethrow_exception(lost);
        } catch (const std::exception& error) {
            why += std::string{": "} + error.what();
        } catch (...) {
            why += " of an unknown type";
        }
    }
    break_off(why.c_str());
}

// TEST_LIMIT_MS where it is set.
DWORD default_limit()
{
    DWORD limit = DEFAULT_LIMIT_MS;
    if (const char* text = std::getenv("TEST_LIMIT_MS")) {
        std::from_chars(text, text + std::strlen(text), limit);
    }
    return limit;
}

std::atomic<DWORD> limit_of_test; // in milliseconds

// Asks no clock: a test may have it played.
void break_off_when_over_time(HANDLE ended)
{
    for (DWORD waited = 0; waited < limit_of_test;) {
        const DWORD part = limit_of_test - waited;
        if (WaitForSingleObject(ended, part) != WAIT_TIMEOUT) {
            return;
        }
        waited += part;
    }
    break_off("over its time limit");
}

class watchdog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override
    {
        running_test = std::string{test.test_suite_name()} + "." + test.name();
        limit_of_test = default_limit_;
        ended_ = custom_actions::kernel_handle{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
        timer_ = std::jthread{break_off_when_over_time, ended_.get()};
    }

    void OnTestEnd(const testing::TestInfo&) override
    {
        SetEvent(ended_.get());
        timer_.join();
    }

    DWORD default_limit_ = default_limit();
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
    SetUnhandledExceptionFilter(on_crash);
    // Before abort() itself says anything: its message may be a dialog.
    std::signal(SIGABRT, [](int) { break_off("aborted"); });
    std::set_terminate(on_lost_exception);

    open_what_stays_open();

    testing::InitGoogleTest(&argc, argv);
    // What escapes a test ends it here, with either compiler, whether it is an exception of C++ or of the
    // system.
    GTEST_FLAG_SET(catch_exceptions, false);
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog);
    return RUN_ALL_TESTS();
}
