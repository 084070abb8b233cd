// The upgrade's phases one after the other in this process, on an installed suite that really runs, with a
// real service for Windows Search.

#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/workspace.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::failing_import;
using test_support::registered_packages;
using test_support::scripted_session;
using test_support::thrown_by;
using test_support::toy_process;
using test_support::upgrade_scene;
using test_support::windows_search;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* FAILED_SCRIPT = "User operation failed; see retained upgrade recovery logs";
constexpr const wchar_t* HELPER = L"Quorbel.Kindra.HelperService.exe";
constexpr const wchar_t* TRAY = L"Quorbel.SystemTray.exe";

HMODULE this_module()
{
    return GetModuleHandleW(nullptr);
}

std::size_t running(const wchar_t* image)
{
    return find_processes_by_image({image}, listing::strict).size();
}

std::vector<std::wstring> packages_of(const std::wstring& version)
{
    std::vector<std::wstring> packages;
    for (const wchar_t* name :
         {L"Quorbel.Comment",
          L"Quorbel.Kindra",
          L"Quorbel.Paste",
          L"Quorbel.Plexa",
          L"Sorvane.Icon",
          L"Sorvane.Organize",
          L"Sorvane.Rate",
          L"Sorvane.Tag"}) {
        packages.push_back(name + (L' ' + version) + L".0 Ok");
    }
    return packages;
}

const std::vector<std::wstring> BEFORE{L"Quorbel.Paste 1.4.0.0 Ok", L"Sorvane.Icon 1.5.0.0 Ok"};
const std::vector<std::wstring> NORMALIZED{L"Quorbel.Paste 1.5.0.0 Ok", L"Sorvane.Icon 1.5.0.0 Ok"};

DWORD search_start_type()
{
    DWORD type = 0;
    DWORD size = sizeof type;
    RegGetValueW(
        HKEY_LOCAL_MACHINE,
        LR"(SYSTEM\CurrentControlSet\Services\WSearch)",
        L"Start",
        RRF_RT_REG_DWORD,
        nullptr,
        &type,
        &size);
    return type;
}

// The delayed start of a service, which not every system under the tests can read or write.
class played_delayed_start {
public:
    explicit played_delayed_start(bool delayed) : delayed_{delayed} {}

    [[nodiscard]] std::optional<bool> restored() const noexcept { return restored_; }

private:
    bool delayed_;
    std::optional<bool> restored_;
    test_support::intercepted_import<"QueryServiceConfig2W", decltype(QueryServiceConfig2W)> query_{
        this_module(), [this](SC_HANDLE, DWORD, LPBYTE buffer, DWORD, LPDWORD) -> std::optional<BOOL> {
            const SERVICE_DELAYED_AUTO_START_INFO info{delayed_};
            std::memcpy(buffer, &info, sizeof info);
            return TRUE;
        }};
    test_support::intercepted_import<"ChangeServiceConfig2W", decltype(ChangeServiceConfig2W)> change_{
        this_module(), [this](SC_HANDLE, DWORD, LPVOID info) -> std::optional<BOOL> {
            restored_ = static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart != FALSE;
            return TRUE;
        }};
};

class UpgradePhases : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "ends programs, replaces PowerShell: set DISPOSABLE_MACHINE where that may be";
        }
        scene.emplace();
    }

    void TearDown() override
    {
        scene.reset();
        test_support::end_explorer();
    }

    std::string run(void (*phase)(MSIHANDLE, const context&))
    {
        return thrown_by([&] { phase(session.handle(), scene->context()); });
    }

    // The upgrade's own lines so far, without what is only progress of a script.
    std::vector<std::wstring> lines() const
    {
        std::vector<std::wstring> found;
        for (const auto& message : session.messages()) {
            if (message.text.find(L" finished in ") == std::wstring::npos &&
                message.text.find(L": Starting ") == std::wstring::npos) {
                found.push_back(message.text.substr(std::wstring{L"Controlled upgrade: "}.size()));
            }
        }
        return found;
    }

    // As though a phase had come this far.
    void leave_markers(const std::vector<std::wstring>& markers) const
    {
        std::filesystem::create_directories(scene->context().workspace + L"\\output");
        for (const std::wstring& name : markers) {
            write_marker(scene->context(), name);
        }
    }

    scripted_session session{this_module()};
    std::optional<upgrade_scene> scene;
};

TEST_F(UpgradePhases, replace_the_suite_and_bring_back_what_ran)
{
    windows_search search;
    set_search_start_type(SERVICE_AUTO_START);
    search.start();
    const played_delayed_start delayed{true};
    scene->powershell.open_folders({L"file:///C:/Users", L"https://example.org/"});
    const toy_process helper{scene->program(HELPER)};
    const toy_process tray{scene->program(TRAY), L"--window=ignores"};
    const toy_process elsewhere{L"Quorbel.Comment.exe"};

    ASSERT_EQ(run(begin), "");
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
    EXPECT_EQ(helper.exit_code(), 0U);
    EXPECT_EQ(tray.exit_code(), 1U) << "it does not close by itself";
    EXPECT_FALSE(elsewhere.exit_code()) << "not from the suite's folder";
    EXPECT_EQ(search.state(), DWORD{SERVICE_STOPPED});
    EXPECT_EQ(search_start_type(), DWORD{SERVICE_DISABLED});
    EXPECT_TRUE(guard_is_live());
    const std::wstring& workspace = scene->context().workspace;
    EXPECT_THAT(
        lines(),
        ElementsAre(
            L"Recovery state: " + workspace,
            L"Existing registration differs from installed package; rollback will normalize it to the saved "
            L"installed archive: " +
                workspace + L"\\Quorbel.Paste.Package.msix",
            L"Windows Search restart blocked; saved startup type 2",
            L"Upgrade processes: closing " + std::to_wstring(helper.id()) + L' ' + std::to_wstring(tray.id()),
            L"Windows Search stopped and restart blocked before file replacement"));

    scene->copy_packages(L"2.0.0");
    scene->powershell.open_folders({});
    ASSERT_EQ(run(install_packages), "");
    EXPECT_EQ(registered_packages(scene->powershell), packages_of(L"2.0.0"));

    ASSERT_EQ(run(finish), "");
    EXPECT_TRUE(has_marker(scene->context(), marker::COMMITTED));
    EXPECT_FALSE(guard_is_live());
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(search_start_type(), DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(delayed.restored(), true);
    EXPECT_EQ(running(HELPER), 1U);
    EXPECT_EQ(running(TRAY), 1U);
    EXPECT_EQ(running(L"explorer.exe"), 1U);
    EXPECT_THAT(scene->powershell.folders(), ElementsAre(L"file:///C:/Users"));
    EXPECT_THAT(scene->powershell.scripts().back(), HasSubstr(L"--open-tab=what-new"));
    EXPECT_EQ(running(L"Quorbel.exe"), 1U);
    EXPECT_EQ(scene->powershell.refused(), L"");
    EXPECT_EQ(scene->powershell.elevation(), TokenElevationTypeLimited);
}

TEST_F(UpgradePhases, are_undone_whole_wherever_they_fail)
{
    windows_search search; // on demand
    search.start();
    const toy_process helper{scene->program(HELPER)};
    ASSERT_EQ(run(begin), "");
    scene->copy_packages(L"2.0.0");
    scene->powershell.tell(L"FailAdd", scene->program(L"Sorvane.Rate"));
    EXPECT_EQ(run(install_packages), FAILED_SCRIPT);
    EXPECT_FALSE(has_marker(scene->context(), marker::PACKAGES_VERIFIED));
    EXPECT_EQ(run(finish), "Package verification was not completed");
    EXPECT_NE(registered_packages(scene->powershell), NORMALIZED);

    scene->copy_packages(L"1.5.0"); // as the installer does
    const toy_process started_meanwhile{scene->program(L"Quorbel.HotkeyHandler.exe")};
    EXPECT_EQ(run(rollback), "");
    EXPECT_EQ(registered_packages(scene->powershell), NORMALIZED);
    EXPECT_TRUE(started_meanwhile.exit_code());
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(search_start_type(), DWORD{SERVICE_DEMAND_START});
    EXPECT_EQ(running(HELPER), 1U);
    EXPECT_EQ(running(TRAY), 1U);
    EXPECT_FALSE(guard_is_live());
    EXPECT_TRUE(has_marker(scene->context(), marker::ROLLBACK_COMPLETE));

    EXPECT_EQ(run(rollback), "") << "a second time, the same work";
    EXPECT_EQ(registered_packages(scene->powershell), NORMALIZED);
}

TEST_F(UpgradePhases, change_nothing_that_runs_where_the_beginning_fails)
{
    windows_search search;
    search.start();
    const toy_process tray{scene->program(TRAY)};
    const std::wstring package = scene->program(L"Quorbel.Plexa.Package.msix");

    struct {
        const char* message;
        std::function<std::string()> begin_where_it_fails;
    } const cases[]{
        {"Another controlled upgrade is active",
         [&] {
             upgrade_guard(true);
             const std::string thrown = run(begin);
             upgrade_guard(false);
             return thrown;
         }},
        {"Interactive user changed during upgrade",
         [&] {
             context other = scene->context();
             other.user_sid = L"S-1-5-21-1-2-3-1001";
             return thrown_by([&] { begin(session.handle(), other); });
         }},
        {"QBL is running in another session; close it there before upgrading",
         [&] {
             const test_support::intercepted_import<"ProcessIdToSessionId", decltype(ProcessIdToSessionId)>
                 moved{this_module(), [&](DWORD process, DWORD* found) -> std::optional<BOOL> {
                           *found = scene->context().session_id + 1;
                           return process == tray.id() ? std::optional{TRUE} : std::nullopt;
                       }};
             return run(begin);
         }},
        {"Cannot back up installed package before upgrade (2)",
         [&] {
             std::filesystem::remove(package);
             const std::string thrown = run(begin);
             scene->copy_packages(L"1.5.0");
             return thrown;
         }},
        {"Cannot capture original package registration",
         [&] {
             scene->powershell.tell(L"EmptyLog", L"capture-3");
             return run(begin);
         }},
        {FAILED_SCRIPT,
         [&] {
             scene->powershell.tell(L"Fail", L"capture-folders");
             return run(begin);
         }},
        {"Cannot read Windows Search delayed start (31)",
         [&] {
             set_search_start_type(SERVICE_AUTO_START);
             const failing_import<"QueryServiceConfig2W", decltype(QueryServiceConfig2W)> fault{
                 this_module(), FALSE, {ERROR_GEN_FAILURE}};
             const std::string thrown = run(begin);
             set_search_start_type(SERVICE_DEMAND_START);
             return thrown;
         }},
        {"Cannot establish upgrade guard (5)",
         [&] {
             const failing_import<"RegCreateKeyExW", decltype(RegCreateKeyExW)> fault{
                 this_module(), ERROR_ACCESS_DENIED, {ERROR_SUCCESS}};
             return run(begin);
         }},
    };

    for (const auto& [message, begin_where_it_fails] : cases) {
        std::filesystem::remove_all(scene->context().workspace);
        EXPECT_EQ(begin_where_it_fails(), message);
        scene->powershell.tell_nothing();
        EXPECT_FALSE(has_marker(scene->context(), marker::SHUTDOWN_STARTED)) << message;
        EXPECT_EQ(run(rollback), "") << message;
        EXPECT_FALSE(tray.exit_code()) << message;
        EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING}) << message;
        EXPECT_EQ(registered_packages(scene->powershell), BEFORE) << message;
        EXPECT_FALSE(guard_is_live()) << message;
    }
    EXPECT_EQ(run(begin), "Cannot create unique recovery directory (183)") << "the last one's is there";
}

TEST_F(UpgradePhases, take_windows_search_as_it_is)
{
    EXPECT_EQ(run(begin), "");
    EXPECT_THAT(
        scene->markers(), ElementsAre("backup-complete", "registered-0", "registered-5", "shutdown-started"))
        << "Windows Search is not installed";
    EXPECT_EQ(run(restore_runtime), "");
    EXPECT_EQ(lines().back(), L"Windows Search is not installed on this system; nothing to restore.");

    windows_search search; // and now it is
    EXPECT_EQ(run(restore_runtime), "");
    EXPECT_EQ(lines().back(), L"Windows Search was not running before the upgrade; left stopped.");
    EXPECT_EQ(search.state(), DWORD{SERVICE_STOPPED});

    leave_markers({marker::SEARCH_RUNNING, L"search-start-type-4"});
    EXPECT_EQ(run(restore_runtime), "Cannot restart Windows Search; ") << "it ran though it was disabled";
    EXPECT_EQ(search_start_type(), DWORD{SERVICE_DISABLED});
}

TEST_F(UpgradePhases, collect_every_failure_of_what_they_bring_back)
{
    windows_search search;
    leave_markers({L"packages-verified", L"search-running", L"search-start-type-2"});
    scene->powershell.tell(L"Fail", L"restore-runtime");
    {
        const failing_import<"RegDeleteKeyExW", decltype(RegDeleteKeyExW)> no_release{
            this_module(), ERROR_ACCESS_DENIED, {ERROR_SUCCESS}};
        const failing_import<"ChangeServiceConfigW", decltype(ChangeServiceConfigW)> no_change{
            this_module(), FALSE, {ERROR_ACCESS_DENIED, 1, 0}};
        EXPECT_EQ(
            run(finish),
            std::string{"Cannot release upgrade guard; Cannot change Windows Search startup type; "} +
                FAILED_SCRIPT + "; ; rollback preparation: Cannot change Windows Search startup type");
    }
    EXPECT_EQ(lines().back(), L"Runtime failure: candidate shutdown attempted before MSI file rollback.");
    EXPECT_TRUE(guard_is_live()) << "taken again";
    EXPECT_EQ(search.state(), DWORD{SERVICE_STOPPED}) << "it had been started";
    EXPECT_EQ(search.starts(), 1U);
    EXPECT_FALSE(has_marker(scene->context(), marker::COMMITTED));

    scene->powershell.tell_nothing();
    {
        const failing_import<"ChangeServiceConfig2W", decltype(ChangeServiceConfig2W)> no_delay{
            this_module(), FALSE, {ERROR_ACCESS_DENIED}};
        EXPECT_EQ(run(restore_runtime), "Cannot restore Windows Search delayed start; ");
    }
    EXPECT_EQ(running(TRAY), 1U) << "every other step was run";
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
}

TEST_F(UpgradePhases, commit_whatever_becomes_of_whats_new_and_wait_for_the_tray)
{
    leave_markers({L"packages-verified"});
    scene->powershell.tell(L"Fail", L"open-whats-new");
    EXPECT_EQ(run(finish), "");
    EXPECT_TRUE(has_marker(scene->context(), marker::COMMITTED));
    EXPECT_EQ(
        lines().back(),
        L"Could not open What's new in Settings: User operation failed; see retained upgrade recovery logs");
    EXPECT_EQ(running(HELPER), 0U) << "it had not run";

    test_support::end_suite();
    scene->powershell.tell_nothing();
    scene->powershell.tell(L"LoseStart", TRAY);
    scene->powershell.tell(L"TrayWaitMs", 600);
    EXPECT_THAT(run(finish), HasSubstr(FAILED_SCRIPT));
}

TEST_F(UpgradePhases, undo_what_the_markers_tell_of_and_no_more)
{
    EXPECT_EQ(run(install_packages), "Upgrade backup is missing");
    EXPECT_EQ(run(rollback), "");
    EXPECT_THAT(lines(), IsEmpty());

    leave_markers({marker::BACKUP_COMPLETE});
    upgrade_guard(true);
    EXPECT_EQ(run(rollback), "");
    EXPECT_FALSE(guard_is_live());
    EXPECT_THAT(scene->powershell.scripts(), IsEmpty());

    leave_markers({marker::SHUTDOWN_STARTED});
    const toy_process comment{scene->program(L"Quorbel.Comment.exe")};
    EXPECT_EQ(run(rollback), "");
    EXPECT_TRUE(comment.exit_code());
    EXPECT_EQ(scene->powershell.scripts().size(), 1U) << "what ran is brought back; no package is touched";

    leave_markers({marker::PACKAGES_TOUCHED, L"registered-0"});
    for (const wchar_t* name :
         {L"Sorvane.Icon.Package.msix", L"Quorbel.Plexa.Package.msix"}) { // saved; six are not
        std::filesystem::copy_file(scene->program(name), scene->context().workspace + L'\\' + name);
    }
    scene->powershell.register_package(L"Quorbel.Plexa", L"2.0.0.0");
    {
        const failing_import<"RegSetValueExW", decltype(RegSetValueExW)> no_guard{
            this_module(), ERROR_ACCESS_DENIED, {ERROR_SUCCESS}};
        std::string expected = "Rollback recovery incomplete: Cannot persist upgrade guard";
        for (int package = 1; package != 7; ++package) {
            expected += std::string{FAILED_SCRIPT} + "; ";
        }
        EXPECT_EQ(run(rollback), expected);
    }
    EXPECT_EQ(registered_packages(scene->powershell), BEFORE);

    scene->powershell.tell(L"KeepPackage", L"Quorbel.Plexa");
    scene->powershell.register_package(L"Quorbel.Plexa", L"2.0.0.0");
    EXPECT_THAT(run(rollback), testing::EndsWith(FAILED_SCRIPT + std::string{"; "}))
        << "its removal is checked";
    {
        const failing_import<"GetFileAttributesW", decltype(GetFileAttributesW)> unreadable{
            this_module(), INVALID_FILE_ATTRIBUTES, {ERROR_ACCESS_DENIED}};
        EXPECT_EQ(run(rollback), "Cannot read upgrade recovery state (5)");
    }
}

} // namespace
} // namespace custom_actions::controlled_upgrade
