// close_and_kill_our_processes of the built library, with real programs and windows.

#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/toy_suite.h"
#include "tests/support/import_hook.h"
#include "tests/support/test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <string>

namespace test_support {
namespace {

TEST(ProcessActions, close_the_suite_and_its_hosts_and_nothing_else)
{
    if (!machine_is_disposable()) {
        GTEST_SKIP() << "closes the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
    }
    end_explorer();
    const std::wstring extension = L" --load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll");
    std::deque<toy_process> polite;
    polite.emplace_back(L"Quorbel.exe");
    polite.emplace_back(L"dllhost.exe", extension);
    std::deque<toy_process> killed; // the windows of a desktop are not asked
    killed.emplace_back(L"quorbel.systemtray.EXE", L"--window=ignores");
    for (const wchar_t* desktop : {L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"}) {
        killed.emplace_back(L"explorer.exe", L"--class=" + (desktop + extension));
    }
    const toy_process other{
        L"Other.exe", L"--window=message --load=" + toy_library(L"QUORBEL.windoworganizer.x64.dll")};
    const toy_process other_host{L"dllhost.exe", L"--load=" + toy_library(L"Other.dll")};

    const loaded_library library;
    const test_session session{library.module()};
    const import_hook wait{library.module(), "WaitForSingleObject", [](HANDLE process, DWORD limit) {
                               return WaitForSingleObjectEx(process, std::min(limit, DWORD{2000}), FALSE);
                           }};
    unsigned woken = 0; // in the program that keeps the hook
    const import_hook posts{
        library.module(), "PostMessageW", [&](HWND window, UINT message) -> std::optional<BOOL> {
            DWORD owner = 0;
            GetWindowThreadProcessId(window, &owner);
            woken += message == WM_NULL && owner == other.id() ? 1U : 0U;
            return std::nullopt;
        }};
    EXPECT_EQ(library.call("close_and_kill_our_processes", session.handle()), 0U);
    for (const toy_process& program : polite) {
        EXPECT_EQ(program.exit_code(), 0U) << "it must close when asked: " << &program - &polite[0];
    }
    for (const toy_process& program : killed) {
        EXPECT_EQ(program.exit_code(), 1U) << "it must be killed: " << &program - &killed[0];
    }
    EXPECT_GT(woken, 0U) << "its message-only window must be woken to release the hook";
    EXPECT_FALSE(other.exit_code() || other_host.exit_code());
    EXPECT_THAT(
        session.messages().at(3).text,
        testing::EndsWith(L"; its file will be removed on restart. PIDs: " + std::to_wstring(other.id())));
}

} // namespace
} // namespace test_support
