#include "custom_actions/common/path.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "tests/support/child_process.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/scripted_session.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::intercepted_import;
using test_support::thrown_by;
using test_support::toy_library;
using test_support::toy_process;
using testing::ElementsAre;

constexpr DWORD STOP_ACCESS = 0x00100001;
constexpr const char* ELSEWHERE = "QBL is running in another session; close it there before upgrading";

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

class SuiteProcesses : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP()
                << "closes programs with the suite's names: set DISPOSABLE_MACHINE where that may be";
        }
        test_support::end_explorer();
        ProcessIdToSessionId(GetCurrentProcessId(), &upgrade.session_id);
    }

    // What is listed, in order; or what was thrown.
    std::pair<process_list, std::string> list()
    {
        process_list found;
        std::string thrown = thrown_by([&] { found = upgrade_processes(upgrade); });
        return {found, thrown};
    }

    // The processes that each pass named in the log, and what was thrown.
    std::pair<std::vector<std::wstring>, std::string> stopped()
    {
        static constexpr std::wstring_view prefix = L"Controlled upgrade: Upgrade processes: ";
        const std::size_t before = session.messages().size();
        std::string thrown = thrown_by([&] { stop(session.handle(), upgrade); });
        std::vector<std::wstring> passes;
        for (std::size_t i = before; i != session.messages().size(); ++i) {
            EXPECT_TRUE(session.messages()[i].text.starts_with(prefix));
            passes.push_back(session.messages()[i].text.substr(prefix.size()));
        }
        return {passes, thrown};
    }

    test_support::scripted_session session{module_under_test()};
    const std::wstring folder{parent_folder(toy_library(L"none.dll"))};
    context upgrade{.product_directory = folder, .workspace = {}, .session_id = 0, .user_sid = {}};
};

ULONGLONG WINAPI tell_no_time()
{
    return 0;
}

using listed = std::pair<process_list, std::string>;
using passes = std::pair<std::vector<std::wstring>, std::string>;

// ProcessIdToSessionId fails with these codes in turn when asked about `process`, and then works.
auto session_refused(DWORD process, std::vector<DWORD> codes)
{
    return intercepted_import<"ProcessIdToSessionId", decltype(ProcessIdToSessionId)>{
        module_under_test(),
        [process, left = std::move(codes)](DWORD asked, DWORD*) mutable -> std::optional<BOOL> {
            if (asked != process || left.empty()) {
                return std::nullopt;
            }
            SetLastError(left.front());
            left.erase(left.begin());
            return FALSE;
        }};
}

// OpenProcess fails with `code` for `process`, where `access` is asked for (0: whatever is).
auto open_refused(DWORD process, DWORD code, DWORD access = 0)
{
    return intercepted_import<"OpenProcess", decltype(OpenProcess)>{
        module_under_test(), [=](DWORD wanted, BOOL, DWORD opened) -> std::optional<HANDLE> {
            if (opened != process || (access != 0 && wanted != access)) {
                return std::nullopt;
            }
            SetLastError(code);
            return nullptr;
        }};
}

TEST_F(SuiteProcesses, are_the_programs_in_the_folder_and_the_hosts)
{
    const std::wstring below = folder + L"\\below";
    const std::wstring toy_program =
        std::wstring{parent_folder(test_support::this_program())} + L"\\toy_program.exe";
    std::filesystem::create_directory(below);
    std::filesystem::copy_file(toy_program, below + L"\\Quorbel.exe");
    {
        const std::wstring none = L"--window=none";
        const std::wstring load = none + L" --load=";
        const toy_process host{L"dllhost.exe", load + toy_library(L"Sorvane.Tag.ShellExtension.dll")};
        const toy_process other_host{L"dllhost.exe", none};
        const toy_process other{L"Other.exe", none};
        const toy_process elsewhere{below + L"\\Quorbel.exe", none};
        const toy_process tray{L"quorbel.SYSTEMTRAY.exe", none};
        const toy_process controller{L"Quorbel.ContextMenuReplacement.Controller.exe", none};
        const toy_process explorer{L"explorer.exe", load + toy_library(L"Quorbel.WindowOrganizer.x64.dll")};
        const process_list expected{tray.id(), controller.id(), host.id(), explorer.id()};
        CharUpperW(upgrade.product_directory.data());
        EXPECT_EQ(list(), (listed{expected, ""}));
        upgrade.product_directory = below;
        EXPECT_EQ(list(), (listed{{elsewhere.id(), host.id(), explorer.id()}, ""}));
    }
    std::filesystem::remove_all(below);
}

TEST_F(SuiteProcesses, stop_the_upgrade_from_another_session)
{
    const toy_process program{L"Quorbel.exe"};
    {
        const auto denied = session_refused(program.id(), {ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED});
        EXPECT_EQ(list(), (listed{{program.id()}, ""})) << "its owner may ask";
    }
    {
        const auto gone = session_refused(program.id(), {ERROR_INVALID_PARAMETER});
        EXPECT_EQ(list(), listed{});
    }
    ++upgrade.session_id;
    EXPECT_EQ(list(), (listed{{}, ELSEWHERE}));
    EXPECT_EQ(stopped(), (passes{{}, ELSEWHERE}));
    EXPECT_FALSE(program.exit_code());
    upgrade.product_directory += L"\\nothing here";
    EXPECT_EQ(list(), listed{}) << "whose place is not the suite's may be anywhere";
}

TEST_F(SuiteProcesses, have_to_be_known_for_certain)
{
    const toy_process program{L"Quorbel.exe"};
    const toy_process host{L"dllhost.exe", L"--load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll")};
    const auto ask = [&] { upgrade_processes(upgrade); };
    const std::string unknown = "Cannot identify original QBL image location";
    {
        const auto gone = open_refused(program.id(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(list(), (listed{{host.id()}, ""}));
    }
    {
        const auto denied = open_refused(program.id(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(list(), (listed{{}, unknown + " (5)"}));
    }
    {
        const test_support::failing_import<"QueryFullProcessImageNameW", decltype(QueryFullProcessImageNameW)>
            no_path{module_under_test(), FALSE, {ERROR_GEN_FAILURE, 1, 0}};
        EXPECT_EQ(list(), (listed{{program.id(), host.id()}, ""})) << "its first module tells as well";
        EXPECT_EQ(THROWN_WITH(ask, K32EnumProcessModulesEx, FALSE, {ERROR_PARTIAL_COPY}), unknown + " (299)");
        EXPECT_EQ(THROWN_WITH(ask, K32GetModuleFileNameExW, 0, {ERROR_ACCESS_DENIED}), unknown + " (5)");
    }
    {
        const auto unreadable = session_refused(host.id(), {ERROR_INVALID_PARAMETER});
        EXPECT_EQ(
            list(),
            (listed{{}, "Cannot resolve interactive owner of host PID " + std::to_string(host.id())}));
    }
    {
        const auto unreadable = session_refused(host.id(), {ERROR_INVALID_PARAMETER});
        const auto gone = open_refused(host.id(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(list(), (listed{{program.id()}, ""}));
    }
}

std::wstring closing(const toy_process& process)
{
    return L"closing " + std::to_wstring(process.id());
}

TEST_F(SuiteProcesses, are_asked_and_then_ended)
{
    EXPECT_EQ(stopped(), (passes{{L"none running."}, ""}));
    const toy_process polite{L"Quorbel.exe"};
    const toy_process missed{L"Quorbel.Paste.exe", L"--window=none"};
    unsigned opened = 0;
    const intercepted_import<"OpenProcess", decltype(OpenProcess)> left_out{
        module_under_test(), [&](DWORD access, BOOL, DWORD process) -> std::optional<HANDLE> {
            const bool refused = process == missed.id() && access == STOP_ACCESS && ++opened == 2;
            return refused ? std::optional<HANDLE>{nullptr} : std::nullopt;
        }};
    std::vector<DWORD> handles; // at the first snapshot of each list
    const intercepted_import<"CreateToolhelp32Snapshot", decltype(CreateToolhelp32Snapshot)> watch{
        module_under_test(), [&](DWORD, DWORD) -> std::optional<HANDLE> {
            handles.push_back(test_support::open_handles());
            return std::nullopt;
        }};
    EXPECT_EQ(stopped(), (passes{{closing(polite) + L' ' + std::to_wstring(missed.id())}, ""}));
    EXPECT_EQ(polite.exit_code(), 0U);
    EXPECT_EQ(missed.exit_code(), 1U);
    EXPECT_EQ(handles.at(0), handles.at(handles.size() / 2)) << "a process is there while a handle to it is";
}

TEST_F(SuiteProcesses, get_a_second_and_shorter_chance)
{
    const test_support::import_patch<decltype(GetTickCount64)> clock{
        module_under_test(), "GetTickCount64", tell_no_time};
    const toy_process first{L"Quorbel.exe"};
    std::optional<toy_process> second;
    std::vector<DWORD> waits;
    std::function<void()> on_first_wait = [&] { second.emplace(L"Quorbel.Paste.exe"); };
    const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> watch{
        module_under_test(), [&](HANDLE, DWORD limit) -> std::optional<DWORD> {
            if (const auto start = std::exchange(on_first_wait, {})) {
                waits.push_back(limit);
                start();
            } else if (limit <= 5000) {
                waits.push_back(limit);
            }
            return std::nullopt;
        }};
    stop(session.handle(), upgrade); // the program that comes up meanwhile is a handle more
    ASSERT_EQ(session.messages().size(), 2U);
    EXPECT_TRUE(session.messages()[0].text.ends_with(closing(first)));
    EXPECT_TRUE(session.messages()[1].text.ends_with(closing(*second)));
    EXPECT_THAT(waits, ElementsAre(5000, 0, 1000, 0));
    EXPECT_EQ(second->exit_code(), 0U);
}

TEST_F(SuiteProcesses, end_the_upgrade_where_they_do_not_end)
{
    const toy_process program{L"Quorbel.exe", L"--window=ignores"};
    {
        const auto denied = open_refused(program.id(), ERROR_ACCESS_DENIED, STOP_ACCESS);
        EXPECT_EQ(stopped(), (passes{{closing(program)}, "Cannot stop a QBL host (5)"}));
    }
    {
        const auto gone = open_refused(program.id(), ERROR_INVALID_PARAMETER, STOP_ACCESS);
        EXPECT_EQ(
            stopped(),
            (passes{
                {closing(program), closing(program)},
                "QBL processes survived shutdown; refusing to replace their files"}));
    }
    const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> in_vain{
        module_under_test(), [](HANDLE, DWORD) {
            SetLastError(ERROR_TIMEOUT);
            return std::optional<DWORD>{WAIT_TIMEOUT};
        }};
    for (const BOOL taken : {FALSE, TRUE}) {
        const intercepted_import<"TerminateProcess", decltype(TerminateProcess)> not_ended{
            module_under_test(), [taken](HANDLE, UINT code) {
                EXPECT_EQ(code, 1U);
                SetLastError(ERROR_ACCESS_DENIED);
                return std::optional{taken};
            }};
        EXPECT_EQ(
            stopped(),
            (passes{
                {closing(program)},
                std::string{"QBL host did not exit after termination"} + (taken ? " (1460)" : " (5)")}));
    }
    EXPECT_FALSE(program.exit_code(std::chrono::milliseconds{0}));
}

} // namespace
} // namespace custom_actions::controlled_upgrade
