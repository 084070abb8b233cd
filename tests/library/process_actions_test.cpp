// close_and_kill_our_processes and restore_explorer of the built library.

#include "custom_actions/processes/token.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/toy_suite.h"
#include "tests/support/fake_clock.h"
#include "tests/support/test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace test_support {
namespace {

constexpr const char* CLOSE = "close_and_kill_our_processes";

class ProcessActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "closes the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        end_explorer();
    }

    loaded_library library;
    test_session session{library.module()};
};

TEST_F(ProcessActions, close_the_suite_and_its_hosts_and_nothing_else)
{
    const std::wstring extension = L" --load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll");
    std::deque<toy_process> ours;
    ours.emplace_back(L"Quorbel.exe");
    ours.emplace_back(L"quorbel.systemtray.EXE", L"--window=ignores");
    ours.emplace_back(L"dllhost.exe", extension);
    for (const wchar_t* desktop : {L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"}) {
        ours.emplace_back(L"explorer.exe", L"--class=" + (desktop + extension));
    }
    const toy_process other{L"Other.exe", L"--load=" + toy_library(L"QUORBEL.windoworganizer.x64.dll")};
    const toy_process other_host{L"dllhost.exe", L"--load=" + toy_library(L"Other.dll")};

    const fake_clock clock{library.module()};
    ULONGLONG waited = 0;
    const intercepted_import<"GetTickCount64", decltype(GetTickCount64)> later{
        library.module(), [&] { return std::optional{clock.now() + waited}; }};
    std::vector<DWORD> waits;
    const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> wait{
        library.module(), [&](HANDLE, DWORD limit) {
            waits.push_back(limit);
            const bool timed_out = waits.size() == 2 || waits.size() == 5; // the tray, the first Explorer
            Sleep(timed_out ? 300 : 0); // enough for programs that close when asked
            waited += timed_out ? limit : 0;
            return timed_out ? std::optional{WAIT_TIMEOUT} : std::nullopt;
        }};
    const failing_import<"PostThreadMessageW", decltype(PostThreadMessageW)> wake{
        library.module(), FALSE, {ERROR_ACCESS_DENIED, 1, 0}};
    EXPECT_EQ(library.call(CLOSE, session.handle()), 0U);
    EXPECT_NE(session.property(L"restore_explorer"), L"unchanged") << "Explorer was running";
    for (std::size_t i = 0; i != ours.size(); ++i) {
        EXPECT_EQ(ours[i].exit_code(), i == 0 || i == 2 ? 0U : 1U) << "0 closed when asked, 1 killed: " << i;
    }
    EXPECT_FALSE(other.exit_code() || other_host.exit_code());
    EXPECT_THAT(waits, testing::ElementsAre(5000, 5000, 5000, 1000, 1000, 5000, 0, 5000, 0, 5000, 0, 5000));
    EXPECT_GT(wake.calls(), 0U) << "threads must be woken to release the hook";
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(12, 250));
    EXPECT_THAT(
        session.messages().at(3).text,
        testing::EndsWith(L"; its file will be removed on restart. PIDs: " + std::to_wstring(other.id())));
}

TEST_F(ProcessActions, restore_explorer_only_in_its_session_and_for_its_user)
{
    const toy_process explorer{L"explorer.exe", L"--window=none"};
    bool elsewhere = false;
    const intercepted_import<"ProcessIdToSessionId", decltype(ProcessIdToSessionId)> sessions{
        library.module(), [&](DWORD, DWORD* found) {
            *found = 77;
            return elsewhere ? std::optional{TRUE} : std::nullopt;
        }};
    EXPECT_EQ(library.call(CLOSE, session.handle()), 0U);
    const std::wstring own = session.property(L"rollback_explorer").value_or(L"");
    elsewhere = true;
    EXPECT_EQ(library.call(CLOSE, session.handle()), 0U);
    EXPECT_EQ(session.property(L"restore_explorer"), L"unchanged") << "Explorer runs in another session";

    unsigned starts = 0;
    const intercepted_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> start{
        library.module(), [&](const auto&... arguments) {
            const auto& [user, program, line, p, t, inherit, flags, environment, folder, startup, out] =
                std::tie(arguments...);
            ++starts;
            EXPECT_NE(custom_actions::token_elevation_type(user, "unreadable"), TokenElevationTypeFull);
            EXPECT_EQ(inherit, FALSE);
            EXPECT_EQ(flags, DWORD{CREATE_UNICODE_ENVIRONMENT});
            EXPECT_STREQ(startup->lpDesktop, LR"(winsta0\default)");
            return std::optional{TRUE};
        }};
    const auto restore = [&](const std::wstring& record) {
        session.set_property(L"CustomActionData", record);
        const UINT result = library.call("restore_explorer", session.handle());
        EXPECT_EQ(result, session.messages().back().type == INSTALLMESSAGE_INFO ? 0U : 1603U);
        return session.messages().back().text;
    };
    for (const wchar_t* record : {L"1", L"|S-1-5-18", L"1a|S-1-5-18"}) {
        EXPECT_EQ(restore(record), L"Invalid Explorer session data");
    }
    EXPECT_EQ(restore(L"00|S-1-5-18"), L"Explorer cannot start in session zero");
    EXPECT_EQ(restore(own + L"1"), L"Explorer session user changed during installation");

    const fake_clock clock{library.module()};
    EXPECT_EQ(restore(L"0" + own), L"Explorer did not return after launch");
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(40, 250));
    elsewhere = false;
    for (const std::wstring& record : {own, std::wstring{L"unchanged"}}) {
        EXPECT_EQ(restore(record), L"Explorer restoration completed for the original interactive session.");
    }
    EXPECT_EQ(starts, 1U) << "Explorer was running already";
}

} // namespace
} // namespace test_support
