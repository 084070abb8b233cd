// The upgrade's phases in this process, on an installed suite that really runs, with a real service for
// Windows Search: what a phase decides, leaves behind and says where something fails.

#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "support/disposable_machine.h"
#include "tests/support/faults.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::failing_import;
using test_support::intercepted_import;
using test_support::registered_packages;
using test_support::thrown_by;
using test_support::toy_library;
using test_support::toy_process;
using test_support::windows_search;
using testing::ElementsAre;

constexpr const char* FAILED_SCRIPT = "User operation failed; see retained upgrade recovery logs";
constexpr const wchar_t* HELPER = L"Quorbel.Kindra.HelperService.exe";
constexpr const wchar_t* TRAY = L"Quorbel.SystemTray.exe";
const std::vector<std::wstring> PACKAGES_BEFORE{L"Quorbel.Paste 1.4.0.0 Ok", L"Sorvane.Icon 1.5.0.0 Ok"};

class UpgradePhases : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "ends programs, replaces PowerShell: set DISPOSABLE_MACHINE where that may be";
        }
        test_support::end_explorer();
        scene.emplace();
        upgrade = scene->context();
    }

    void TearDown() override
    {
        scene.reset();
        test_support::end_explorer();
    }

    std::string run(void (*phase)(MSIHANDLE, const context&))
    {
        return thrown_by([&] { phase(session.handle(), upgrade); });
    }

    // The upgrade's own lines so far, without what is only progress of a script.
    std::vector<std::wstring> lines() const
    {
        std::vector<std::wstring> found;
        for (const auto& message : session.messages()) {
            if (message.text.find(L" finished in ") == std::wstring::npos &&
                message.text.find(L": Starting ") == std::wstring::npos) {
                found.push_back(message.text.substr(20));
            }
        }
        return found;
    }

    // As though a phase had come this far.
    void leave_markers(const std::vector<std::wstring>& markers) const
    {
        std::filesystem::create_directories(upgrade.workspace + L"\\output");
        for (const std::wstring& name : markers) {
            write_marker(upgrade, name);
        }
    }

    HMODULE this_module = GetModuleHandleW(nullptr);
    test_support::scripted_session session{this_module};
    std::optional<test_support::upgrade_scene> scene;
    context upgrade{};
};

std::wstring id_of(const toy_process& program)
{
    return L' ' + std::to_wstring(program.id());
}

TEST_F(UpgradePhases, save_and_stop_whatever_the_files_or_the_user_need)
{
    windows_search search;
    set_search_start_type(SERVICE_AUTO_START);
    search.start();
    // The delayed start of a service, which not every system under the tests can read or write.
    const intercepted_import<"QueryServiceConfig2W", decltype(QueryServiceConfig2W)> delayed{
        this_module, [](SC_HANDLE, DWORD, LPBYTE info, DWORD, LPDWORD) {
            *info = TRUE;
            return std::optional{TRUE};
        }};
    const toy_process helper{scene->program(HELPER)};
    const toy_process elsewhere{L"Quorbel.Comment.exe"};
    const toy_process host{L"dllhost.exe", L"--load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll")};
    std::optional<toy_process> tray; // comes up while the others close, and does not close itself

    std::vector<std::wstring> access; // of the folders that are made
    const intercepted_import<"CreateDirectoryW", decltype(CreateDirectoryW)> folders{
        this_module, [&](LPCWSTR, LPSECURITY_ATTRIBUTES attributes) -> std::optional<BOOL> {
            wchar_t* text = nullptr;
            ConvertSecurityDescriptorToStringSecurityDescriptorW(
                attributes->lpSecurityDescriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr);
            const local_memory owner{text};
            access.emplace_back(text);
            return std::nullopt;
        }};
    const intercepted_import<"GetTickCount64", decltype(GetTickCount64)> clock{
        this_module, [] { return std::optional<ULONGLONG>{0}; }};
    std::vector<DWORD> limits;
    const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> waits{
        this_module, [&](HANDLE object, DWORD limit) {
            if (limit <= 5000) { // not a script's
                limits.push_back(limit);
                if (!tray) {
                    tray.emplace(scene->program(TRAY), L"--window=ignores");
                }
            }
            return std::optional{WaitForSingleObjectEx(object, limit == 1000 ? 10 : limit, FALSE)};
        }};
    CharUpperW(upgrade.product_directory.data());
    EXPECT_NO_THROW(begin(session.handle(), upgrade));

    EXPECT_THAT(
        scene->markers(),
        ElementsAre(
            "backup-complete",
            "helper-running",
            "registered-0",
            "registered-5",
            "search-delayed-start",
            "search-running",
            "search-start-type-2",
            "shutdown-started"));
    const std::wstring closing = L"Upgrade processes: closing";
    const std::wstring everybody_else = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;";
    const std::wstring user = L";;;" + upgrade.user_sid + L")";
    EXPECT_THAT(access, ElementsAre(everybody_else + L"GXGR" + user, everybody_else + L"FA" + user));
    EXPECT_THAT(
        lines(),
        ElementsAre(
            L"Recovery state: " + upgrade.workspace,
            L"Existing registration differs from installed package; rollback will normalize it to the saved "
            L"installed archive: " +
                upgrade.workspace + L"\\Quorbel.Paste.Package.msix",
            L"Windows Search restart blocked; saved startup type 2",
            closing + id_of(helper) + id_of(host),
            closing + id_of(*tray),
            L"Windows Search stopped and restart blocked before file replacement"));
    EXPECT_THAT(limits, ElementsAre(5000U, 5000U, 0U, 0U, 1000U, 5000U, 0U));
    EXPECT_EQ(helper.exit_code(), 0U);
    EXPECT_EQ(tray->exit_code(), 1U) << "it was ended";
    EXPECT_FALSE(elsewhere.exit_code()) << "not from the suite's folder";
    EXPECT_EQ(search.state(), DWORD{SERVICE_STOPPED});
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_DISABLED});
    EXPECT_EQ(run(begin), "Another controlled upgrade is active");
}

TEST_F(UpgradePhases, know_for_certain_what_they_stop)
{
    const toy_process program{scene->program(TRAY), L"--window=ignores"};
    const toy_process host{L"dllhost.exe", L"--load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll")};
    process_list found;
    const auto ask = [&] { found = upgrade_processes(upgrade); };
    EXPECT_EQ(THROWN_WITH(ask, OpenProcess, nullptr, {ERROR_INVALID_PARAMETER}), "");
    EXPECT_THAT(found, ElementsAre(host.id())) << "the program has gone";
    EXPECT_EQ(THROWN_WITH(ask, ProcessIdToSessionId, FALSE, {ERROR_INVALID_PARAMETER, 3}), "");
    EXPECT_THAT(found, ElementsAre(host.id())) << "a little later";
    EXPECT_EQ(THROWN_WITH(ask, OpenProcess, nullptr, {ERROR_ACCESS_DENIED}), "");
    EXPECT_THAT(found, ElementsAre(program.id(), host.id())) << "its owner may look at it";
    EXPECT_EQ(
        THROWN_WITH(ask, OpenProcess, nullptr, {ERROR_ACCESS_DENIED, 1, 2}),
        "Cannot identify original QBL image location (5)");
    EXPECT_EQ(
        THROWN_WITH(ask, ProcessIdToSessionId, FALSE, {ERROR_INVALID_PARAMETER}),
        "Cannot resolve interactive owner of host PID " + std::to_string(host.id()));
    {
        const failing_import<"OpenProcess", decltype(OpenProcess)> gone{
            this_module, nullptr, {ERROR_INVALID_PARAMETER, 2}};
        EXPECT_EQ(THROWN_WITH(ask, ProcessIdToSessionId, FALSE, {ERROR_INVALID_PARAMETER}), "");
        EXPECT_THAT(found, ElementsAre(program.id())) << "the host has gone";
    }

    const intercepted_import<"OpenProcess", decltype(OpenProcess)> gone{
        this_module, [](DWORD access, BOOL, DWORD) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return (access & PROCESS_TERMINATE) != 0 ? std::optional<HANDLE>{nullptr} : std::nullopt;
        }};
    EXPECT_EQ(
        thrown_by([&] { stop(session.handle(), upgrade); }),
        "QBL processes survived shutdown; refusing to replace their files");
    EXPECT_FALSE(program.exit_code());
}

TEST_F(UpgradePhases, change_nothing_that_runs_where_the_beginning_fails)
{
    std::optional<windows_search> search{std::in_place}; // on demand
    search->start();
    std::optional<toy_process> tray{scene->program(TRAY)};
    const auto run_begin = [&] { begin(session.handle(), upgrade); };
    const auto expect_untouched = [&](const std::string& thrown, const char* message) {
        EXPECT_EQ(thrown, message);
        scene->powershell.tell_nothing();
        EXPECT_EQ(run(rollback), "") << message;
        EXPECT_FALSE(tray->exit_code()) << message;
        EXPECT_EQ(search->state(), DWORD{SERVICE_RUNNING}) << message;
        EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_DEMAND_START}) << message;
        EXPECT_EQ(registered_packages(scene->powershell), PACKAGES_BEFORE) << message;
        EXPECT_FALSE(guard_is_live()) << message;
        std::filesystem::remove_all(upgrade.workspace);
    };
    upgrade.user_sid += L'1';
    expect_untouched(run(begin), "Interactive user changed during upgrade");
    upgrade = scene->context();
    expect_untouched( // in session 0
        THROWN_WITH(run_begin, ProcessIdToSessionId, TRUE, {ERROR_SUCCESS, 1, 0}),
        "QBL is running in another session; close it there before upgrading");
    expect_untouched(
        THROWN_WITH(run_begin, CopyFileW, FALSE, {ERROR_DISK_FULL}),
        "Cannot back up installed package before upgrade (112)");
    scene->powershell.tell(L"EmptyLog", L"capture-0");
    expect_untouched(run(begin), "Cannot capture original package registration");
    expect_untouched( // without an error, and nothing written
        THROWN_WITH(run_begin, WriteFile, TRUE, {ERROR_DISK_FULL}),
        "Cannot persist upgrade recovery state (112)");
    expect_untouched(
        THROWN_WITH(run_begin, RegCreateKeyExW, ERROR_ACCESS_DENIED, {ERROR_SUCCESS}),
        "Cannot establish upgrade guard (5)");

    search.reset();
    tray.reset();
    EXPECT_EQ(run(begin), "");
    EXPECT_THAT(
        scene->markers(), ElementsAre("backup-complete", "registered-0", "registered-5", "shutdown-started"));
    EXPECT_EQ(run(rollback), "");
    EXPECT_EQ(lines().back(), L"Windows Search is not installed on this system; nothing to restore.");
    EXPECT_EQ(run(begin), "Cannot create unique recovery directory (183)") << "it stays";
}

TEST_F(UpgradePhases, bring_back_what_they_can_and_commit_only_when_all_is_back)
{
    windows_search search;
    EXPECT_EQ(run(finish), "Package verification was not completed");
    leave_markers({L"packages-verified", L"search-running", L"search-start-type-2"});
    scene->powershell.tell(L"Fail", L"restore-runtime");
    {
        const failing_import<"RegDeleteKeyExW", decltype(RegDeleteKeyExW)> no_release{
            this_module, ERROR_ACCESS_DENIED, {ERROR_SUCCESS}};
        const failing_import<"ChangeServiceConfigW", decltype(ChangeServiceConfigW)> no_change{
            this_module, FALSE, {ERROR_ACCESS_DENIED, 1, 0}};
        EXPECT_EQ(
            run(finish),
            std::string{"Cannot release upgrade guard; Cannot change Windows Search startup type; "} +
                FAILED_SCRIPT + "; ; rollback preparation: Cannot change Windows Search startup type");
    }
    EXPECT_EQ(lines().back(), L"Runtime failure: candidate shutdown attempted before MSI file rollback.");
    EXPECT_TRUE(guard_is_live()) << "taken again";
    EXPECT_EQ(search.state(), DWORD{SERVICE_STOPPED}) << "it had been started";
    EXPECT_EQ(search.starts(), 1U);
    EXPECT_FALSE(has_marker(upgrade, marker::COMMITTED));

    scene->powershell.tell_nothing();
    scene->powershell.tell(L"Fail", L"open-whats-new");
    leave_markers({L"search-delayed-start"});
    set_search_start_type(SERVICE_DISABLED);
    std::optional<BOOL> delayed;
    const intercepted_import<"ChangeServiceConfig2W", decltype(ChangeServiceConfig2W)> change{
        this_module, [&](SC_HANDLE, DWORD, LPVOID info) {
            delayed = static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart;
            return std::optional{TRUE};
        }};
    EXPECT_EQ(run(finish), "") << "whatever becomes of what's new";
    EXPECT_EQ(
        lines().back(),
        L"Could not open What's new in Settings: User operation failed; see retained upgrade recovery logs");
    EXPECT_TRUE(has_marker(upgrade, marker::COMMITTED));
    EXPECT_FALSE(guard_is_live());
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(delayed, TRUE);
    EXPECT_EQ(test_support::end_programs(TRAY), 1U);
    EXPECT_EQ(test_support::end_programs(HELPER), 0U) << "it had not run";
    EXPECT_EQ(scene->powershell.refused(), L"");
}

TEST_F(UpgradePhases, undo_what_the_markers_tell_of_and_no_more)
{
    windows_search search; // it did not run
    EXPECT_EQ(run(install_packages), "Upgrade backup is missing");
    EXPECT_EQ(run(rollback), "");
    EXPECT_THAT(lines(), testing::IsEmpty());

    leave_markers({marker::BACKUP_COMPLETE});
    upgrade_guard(true);
    EXPECT_EQ(run(rollback), "");
    EXPECT_FALSE(guard_is_live());
    EXPECT_THAT(scene->powershell.scripts(), testing::IsEmpty());

    leave_markers({marker::SHUTDOWN_STARTED});
    const toy_process comment{scene->program(L"Quorbel.Comment.exe")};
    EXPECT_EQ(run(rollback), "");
    EXPECT_TRUE(comment.exit_code());
    EXPECT_EQ(lines().back(), L"Windows Search was not running before the upgrade; left stopped.");
    EXPECT_EQ(scene->powershell.scripts().size(), 1U) << "what ran is brought back; no package is touched";

    leave_markers({marker::PACKAGES_TOUCHED, L"registered-0", L"registered-5"});
    scene->powershell.register_package(L"Quorbel.Plexa", L"2.0.0.0");
    for (std::size_t saved = 1; saved != UPGRADE_PACKAGES.size(); ++saved) { // the first one got lost
        std::filesystem::copy_file(installed_package(upgrade, saved), saved_package(upgrade, saved));
    }
    {
        const failing_import<"RegSetValueExW", decltype(RegSetValueExW)> no_guard{
            this_module, ERROR_ACCESS_DENIED, {ERROR_SUCCESS}};
        EXPECT_EQ(
            run(rollback),
            std::string{"Rollback recovery incomplete: Cannot persist upgrade guard"} + FAILED_SCRIPT + "; ");
    }
    EXPECT_THAT(
        registered_packages(scene->powershell),
        ElementsAre(L"Quorbel.Paste 1.5.0.0 Ok", L"Sorvane.Icon 1.5.0.0 Ok"));
    const auto run_rollback = [&] { rollback(session.handle(), upgrade); };
    EXPECT_EQ(
        THROWN_WITH(run_rollback, GetFileAttributesW, INVALID_FILE_ATTRIBUTES, {ERROR_ACCESS_DENIED}),
        "Cannot read upgrade recovery state (5)");
}

} // namespace
} // namespace custom_actions::controlled_upgrade
