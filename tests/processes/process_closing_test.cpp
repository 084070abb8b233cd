#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/hook_release.h"
#include "custom_actions/processes/process_closing.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/played_clock.h"
#include "tests/support/scripted_session.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace custom_actions {
namespace {

using namespace std::chrono_literals;
using test_support::installer_call;
using test_support::toy_library;
using test_support::toy_process;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const wchar_t* RELEASED = L"Window Organizer hook hosts released.";

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

ULONGLONG milliseconds_for(const std::function<void()>& call)
{
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(test_support::thrown_by(call), "");
    return GetTickCount64() - start;
}

std::wstring id_of(const toy_process& process)
{
    return L" " + std::to_wstring(process.id());
}

class ProcessClosing : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP()
                << "closes programs with the suite's names: set DISPOSABLE_MACHINE where that may be";
        }
    }
};

TEST_F(ProcessClosing, asks_first_and_ends_what_does_not_listen)
{
    const toy_process polite{L"Quorbel.exe"};
    const toy_process slow{L"Quorbel.Paste.exe", L"--exit-delay=300"};
    const toy_process stubborn{L"Quorbel.Comment.exe", L"--window=ignores"};
    const toy_process windowless{L"Quorbel.HotkeyHandler.exe", L"--window=none"};
    const toy_process bystander{L"Quorbel.exe"};
    const ULONGLONG took = milliseconds_for(
        [&] { close_processes({polite.id(), slow.id(), stubborn.id(), windowless.id(), 0xFFFFFFF0}, 1000); });
    EXPECT_EQ(polite.exit_code(), 0U);
    EXPECT_EQ(slow.exit_code(), 0U);
    EXPECT_EQ(stubborn.exit_code(), 1U);
    EXPECT_EQ(windowless.exit_code(), 1U);
    EXPECT_FALSE(bystander.exit_code());
    EXPECT_GE(took, 950U) << "one deadline for all of them";
    EXPECT_LT(took, 2000U);
}

TEST_F(ProcessClosing, waits_no_longer_than_the_programs_take)
{
    std::deque<toy_process> programs;
    process_list ids;
    for (int i = 0; i != 5; ++i) {
        ids.push_back(programs.emplace_back(L"Quorbel.exe").id());
    }
    EXPECT_LT(milliseconds_for([&] { close_processes(ids, 30'000); }), 5000U);
    for (const toy_process& program : programs) {
        EXPECT_EQ(program.exit_code(), 0U);
    }
    close_processes({}, 30'000);
}

TEST_F(ProcessClosing, leaves_out_what_cannot_be_opened_or_ended)
{
    const toy_process denied{L"Quorbel.exe", L"--window=ignores"};
    EXPECT_EQ(
        THROWN_WITH([&] { close_processes({denied.id()}, 0); }, OpenProcess, nullptr, {ERROR_ACCESS_DENIED}),
        "");
    EXPECT_EQ(
        THROWN_WITH(
            [&] { close_processes({denied.id()}, 0); }, TerminateProcess, FALSE, {ERROR_ACCESS_DENIED}),
        "");
    EXPECT_FALSE(denied.exit_code());
}

TEST_F(ProcessClosing, never_asks_the_desktop_and_the_taskbars)
{
    for (const wchar_t* window_class :
         {L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"}) {
        const toy_process shell{L"explorer.exe", std::wstring{L"--class="} + window_class};
        close_processes({shell.id()}, 200);
        EXPECT_EQ(shell.exit_code(), 1U) << "ended, but never asked";
    }
    EXPECT_FALSE(is_desktop_class(L"PROGMAN")) << "the case of letters counts";

    const toy_process unreadable{L"explorer.exe", L"--class=Progman"};
    EXPECT_EQ(
        THROWN_WITH(
            [&] { close_processes({unreadable.id()}, 5000); }, GetClassNameW, 0, {ERROR_ACCESS_DENIED, 1, 0}),
        "");
    EXPECT_EQ(unreadable.exit_code(), 0U) << "asked all the same";
}

class SuiteClosing : public ProcessClosing {
protected:
    // What the action logs, without its own prefix where a line has that.
    std::vector<std::wstring> close(UINT expected = 0)
    {
        static constexpr std::wstring_view prefix = L"Custom action: close_and_kill_our_processes: ";
        const std::size_t before = session.messages().size();
        EXPECT_EQ(close_our_processes(session.handle()), expected);
        std::vector<std::wstring> lines;
        for (std::size_t i = before; i != session.messages().size(); ++i) {
            const auto& [type, text] = session.messages()[i];
            EXPECT_EQ(type, 0x04000000U);
            lines.push_back(text.starts_with(prefix) ? L": " + text.substr(prefix.size()) : text);
        }
        return lines;
    }

    test_support::scripted_session session{module_under_test()};
};

TEST_F(SuiteClosing, closes_the_suite_and_its_hosts_and_nobody_else)
{
    const toy_process main_program{L"Quorbel.exe"};
    const toy_process tray{L"quorbel.systemtray.EXE", L"--window=ignores"};
    const toy_process host{
        L"dllhost.exe", L"--window=none --load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll")};
    const toy_process other_host{L"dllhost.exe", L"--window=none"};
    const toy_process other{L"Other.exe"};
    EXPECT_THAT(
        close(),
        ElementsAre(
            L": Starting...",
            L": Resident processes: closing" + id_of(main_program) + id_of(tray),
            L": Shell extension hosts: closing" + id_of(host),
            RELEASED,
            L": Completed."));
    EXPECT_EQ(main_program.exit_code(), 0U) << "it closed by itself";
    EXPECT_EQ(tray.exit_code(), 1U);
    EXPECT_EQ(host.exit_code(), 1U);
    EXPECT_FALSE(other_host.exit_code());
    EXPECT_FALSE(other.exit_code());
    EXPECT_EQ(session.property(L"restore_explorer"), explorer_session_record());
    EXPECT_EQ(session.property(L"rollback_explorer"), explorer_session_record());
}

TEST_F(SuiteClosing, says_so_where_nothing_is_running)
{
    EXPECT_THAT(
        close(),
        ElementsAre(
            L": Starting...",
            L": Resident processes: none running.",
            L": Shell extension hosts: none running.",
            RELEASED,
            L": Completed."));
    log_process_group({}, L"Resident processes", {1, 2});
}

TEST_F(SuiteClosing, fails_silently_before_it_has_begun)
{
    const toy_process main_program{L"Quorbel.exe"};
    for (const unsigned nth : {1U, 2U}) {
        session.fail(installer_call::set_property, ERROR_FUNCTION_FAILED, nth);
        EXPECT_THAT(close(1603), IsEmpty());
    }
    EXPECT_EQ(
        THROWN_WITH(
            [&] { close_our_processes(session.handle()); }, OpenThreadToken, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot determine installer user session (5)");
    EXPECT_FALSE(main_program.exit_code());
}

TEST_F(SuiteClosing, names_the_programs_that_keep_the_hook)
{
    const toy_process bystander{L"Other.exe", L"--load=" + toy_library(L"Quorbel.WindowOrganizer.Hook.dll")};
    const test_support::played_clock clock{module_under_test()};
    EXPECT_EQ(
        close().at(3),
        L"Window Organizer hook image still mapped in running applications; its file will be removed on "
        L"restart. "
        L"PIDs:" +
            id_of(bystander));
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(12, 250));
    EXPECT_FALSE(bystander.exit_code()) << "nobody else's program is ended";
}

TEST_F(SuiteClosing, completes_where_the_release_cannot_be_verified)
{
    const test_support::intercepted_import<"CreateToolhelp32Snapshot", decltype(CreateToolhelp32Snapshot)>
        patch{module_under_test(), [](DWORD flags, DWORD) {
                  return flags == TH32CS_SNAPTHREAD ? std::optional{INVALID_HANDLE_VALUE} : std::nullopt;
              }};
    const auto lines = close();
    EXPECT_EQ(lines.at(3), L"Could not verify Window Organizer hook release.");
    EXPECT_EQ(lines.back(), L": Completed.");
}

TEST(HookHosts, need_a_snapshot)
{
    EXPECT_EQ(
        THROWN_WITH(
            [] { find_hook_hosts(); }, CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {ERROR_ACCESS_DENIED}),
        "Cannot enumerate hook hosts (5)");
    EXPECT_EQ(
        THROWN_WITH(
            [] { EXPECT_THAT(find_hook_hosts(), IsEmpty()); }, Process32FirstW, FALSE, {ERROR_ACCESS_DENIED}),
        "");
}

} // namespace
} // namespace custom_actions
