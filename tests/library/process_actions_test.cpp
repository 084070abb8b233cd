// close_and_kill_our_processes and restore_explorer in the built library.

#include "custom_actions/processes/token.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/toy_suite.h"
#include "tests/support/failing_import.h"
#include "tests/support/played_clock.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <userenv.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

using testing::ElementsAre;

constexpr const char* CLOSE = "close_and_kill_our_processes";
const std::wstring CLOSING = L"Custom action: close_and_kill_our_processes: ";

class ProcessActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "closes the suite's programs: set DISPOSABLE_MACHINE where that may be";
        }
        end_explorer();
    }

    // The texts of its messages: log lines of a success, errors of a failure.
    std::vector<std::wstring> call(const char* action, UINT expected = 0)
    {
        const std::size_t before = session.messages().size();
        EXPECT_EQ(library.call(action, session.handle()), expected);
        std::vector<std::wstring> texts;
        for (std::size_t i = before; i != session.messages().size(); ++i) {
            EXPECT_EQ(session.messages()[i].type, expected == 0 ? 0x04000000U : 0x01000000U);
            texts.push_back(session.messages()[i].text);
        }
        return texts;
    }

    std::wstring restore(const std::wstring& data, UINT expected = 1603)
    {
        session.set_property(L"CustomActionData", data);
        return call("restore_explorer", expected).at(0);
    }

    loaded_library library;
    scripted_session session{library.module()};
};

// What `call` returns while the library's calls to `function` fail.
#define WITH(call, function, ...)                                                                            \
    ([&] {                                                                                                   \
        const failing_import<#function, decltype(function)> fault{library.module(), __VA_ARGS__};            \
        return call;                                                                                         \
    }())

std::wstring ids_of(const std::deque<toy_process>& processes)
{
    std::wstring ids;
    for (const toy_process& process : processes) {
        ids.append(L" ").append(std::to_wstring(process.id()));
    }
    return ids;
}

TEST_F(ProcessActions, close_the_suite_and_its_hosts_and_nobody_else)
{
    const auto load = [](const wchar_t* name) { return L" --load=" + toy_library(name); };
    const std::wstring extension = load(L"Sorvane.Tag.ShellExtension.dll");
    std::deque<toy_process> suite;
    suite.emplace_back(L"Quorbel.exe");
    suite.emplace_back(L"quorbel.systemtray.EXE", L"--window=ignores");
    suite.emplace_back(L"Quorbel.Paste.exe", L"--window=none");
    std::deque<toy_process> hosts;
    hosts.emplace_back(L"dllhost.exe", extension);
    for (const wchar_t* desktop : {L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"}) {
        hosts.emplace_back(L"explorer.exe", L"--class=" + (desktop + extension));
    }
    const toy_process other{L"Other.exe", load(L"QUORBEL.windoworganizer.x64.dll")};
    const toy_process other_host{L"dllhost.exe", load(L"Other.dll")};

    for (const unsigned nth : {1U, 2U}) {
        session.fail(installer_call::set_property, ERROR_FUNCTION_FAILED, nth);
        EXPECT_THAT(call(CLOSE, 1603), testing::IsEmpty());
    }
    EXPECT_THAT(WITH(call(CLOSE, 1603), OpenThreadToken, FALSE, {5}), testing::IsEmpty());
    EXPECT_FALSE(suite[0].exit_code()) << "nothing is closed where Explorer could not come back";

    const played_clock clock{library.module()};
    ULONGLONG waited = 0;
    const intercepted_import<"GetTickCount64", decltype(GetTickCount64)> later{
        library.module(), [&] { return std::optional{clock.now() + waited}; }};
    std::vector<DWORD> waits;
    const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> wait{
        library.module(), [&](HANDLE, DWORD limit) -> std::optional<DWORD> {
            waits.push_back(limit);
            if (waits.size() != 2 && waits.size() != 7) { // for the tray and the first of the desktop
                return std::nullopt;
            }
            Sleep(300); // enough for whoever was asked to close
            waited += limit;
            return WAIT_TIMEOUT;
        }};
    unsigned woken = 0;
    const intercepted_import<"PostThreadMessageW", decltype(PostThreadMessageW)> wake{
        library.module(), [&](DWORD, UINT message, WPARAM, LPARAM) {
            woken += message == WM_NULL ? 1 : 0;
            return std::optional<BOOL>{};
        }};
    EXPECT_THAT(
        call(CLOSE),
        ElementsAre(
            CLOSING + L"Starting...",
            CLOSING + L"Resident processes: closing" + ids_of(suite),
            CLOSING + L"Shell extension hosts: closing" + ids_of(hosts),
            L"Window Organizer hook image still mapped in running applications; its file will be removed on "
            L"restart. PIDs: " +
                std::to_wstring(other.id()),
            CLOSING + L"Completed."));
    EXPECT_EQ(suite[0].exit_code(), 0U) << "it was asked";
    EXPECT_EQ(suite[1].exit_code(), 1U);
    EXPECT_EQ(suite[2].exit_code(), 1U);
    EXPECT_EQ(hosts[0].exit_code(), 0U);
    for (std::size_t i = 1; i != hosts.size(); ++i) {
        EXPECT_EQ(hosts[i].exit_code(), 1U) << "the desktop is ended, but never asked";
    }
    EXPECT_FALSE(other.exit_code() || other_host.exit_code());
    EXPECT_THAT(waits, ElementsAre(5000, 5000, 5000, 0, 5000, 1000, 1000, 5000, 0, 5000, 0, 5000, 0, 5000));
    EXPECT_GT(woken, 0U) << "a thread that is woken lets go of the hook";
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(12, 250));
}

TEST_F(ProcessActions, go_on_where_programs_cannot_be_looked_into)
{
    const toy_process program{L"Quorbel.exe", L"--window=ignores"};
    const toy_process host{L"dllhost.exe", L"--load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll")};
    const std::vector<std::wstring> nobody{
        CLOSING + L"Starting...",
        CLOSING + L"Resident processes: none running.",
        CLOSING + L"Shell extension hosts: none running.",
        L"Could not verify Window Organizer hook release.",
        CLOSING + L"Completed."};
    EXPECT_EQ(WITH(call(CLOSE), CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {5, 1, 0}), nobody);
    const failing_import<"OpenProcess", decltype(OpenProcess)> denied{library.module(), nullptr, {5}};
    EXPECT_EQ(WITH(call(CLOSE), Module32FirstW, FALSE, {5, 1, 0}).at(2), nobody.at(2));
    EXPECT_FALSE(program.exit_code() || host.exit_code());
    EXPECT_EQ(session.property(L"restore_explorer"), L"unchanged") << "none is running";
}

TEST_F(ProcessActions, bring_explorer_back_for_nobody_but_its_user)
{
    std::optional<toy_process> explorer{std::in_place, L"explorer.exe", L"--window=none"};
    call(CLOSE);
    const std::wstring own = session.property(L"restore_explorer").value_or(L"");
    EXPECT_EQ(session.property(L"rollback_explorer"), own);
    const std::wstring user = own.substr(own.find(L'|') + 1);
    explorer.reset();
    end_explorer();

    constexpr const wchar_t* invalid = L"Invalid Explorer session data";
    constexpr const wchar_t* other_user = L"Explorer session user changed during installation";
    const std::pair<std::wstring, const wchar_t*> records[]{
        {L"1", invalid},
        {L"|" + user, invalid},
        {L" " + own, invalid},
        {L"1a|" + user, invalid},
        {L"\u0661|" + user, invalid},
        {L"00|" + user, L"Explorer cannot start in session zero"},
        {L"4294967296|" + user, L"stoul argument out of range"},
        {L"00" + own + L"|", other_user},
        {own + std::wstring(255 - own.size(), L'1'), other_user},
        {own + std::wstring(256 - own.size(), L'1'), L"Cannot read Explorer restoration data"},
    };
    for (const auto& [record, told] : records) {
        EXPECT_EQ(restore(record), told);
    }
    EXPECT_EQ(
        WITH(restore(own), GetTokenInformation, FALSE, {5, 3}), L"Cannot inspect Explorer token elevation");
    EXPECT_EQ(
        WITH(restore(own), CreateProcessAsUserW, FALSE, {5}),
        L"Cannot restart Explorer as the interactive user");

    unsigned starts = 0;
    const intercepted_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> start{
        library.module(),
        [&](HANDLE token,
            LPCWSTR program,
            LPWSTR command_line,
            LPSECURITY_ATTRIBUTES,
            LPSECURITY_ATTRIBUTES,
            BOOL inherit,
            DWORD flags,
            LPVOID,
            LPCWSTR directory,
            LPSTARTUPINFOW startup,
            LPPROCESS_INFORMATION) {
            ++starts;
            EXPECT_NE(custom_actions::token_elevation_type(token), TokenElevationTypeFull);
            EXPECT_EQ(L'"' + std::wstring{program} + L'"', command_line);
            EXPECT_EQ(program, std::wstring{directory} + LR"(\explorer.exe)");
            EXPECT_EQ(inherit, FALSE);
            EXPECT_EQ(flags, 0x400U);
            EXPECT_EQ(startup->lpDesktop, std::wstring{LR"(winsta0\default)"});
            return std::optional{TRUE};
        }};
    const played_clock clock{library.module()};
    EXPECT_EQ(restore(own), L"Explorer did not return after launch");
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(40, 250));

    explorer.emplace(L"explorer.exe", L"--window=none");
    EXPECT_EQ(restore(own, 0), L"Explorer restoration completed for the original interactive session.");
    EXPECT_EQ(starts, 1U) << "it is there already";
}

} // namespace
} // namespace test_support
