// The upgrade's phases, run in this process on an installed and running suite, some with a real service for
// Windows Search: what they decide, leave behind and report when something fails.

#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "support/disposable_machine.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <psapi.h>
#include <sddl.h>
#include <tlhelp32.h>

#include <deque>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::thrown_by;
using test_support::toy_process;
using testing::ElementsAre;

const std::string FAILED_SCRIPT = "User operation failed; see retained upgrade recovery logs";

class UpgradePhases : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "ends programs, replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed";
        }
        test_support::end_explorer(); // the system's own would be inspected as a host
        fixture.emplace();
        upgrade = fixture->context();
    }

    void TearDown() override
    {
        if (fixture) {
            test_support::end_explorer();
        }
    }

    auto calling(void (*phase)(MSIHANDLE, const context&))
    {
        return [this, phase] { phase(session.handle(), upgrade); };
    }

    HMODULE this_module = GetModuleHandleW(nullptr);
    test_support::test_session session{this_module};
    std::optional<test_support::upgrade_fixture> fixture;
    context upgrade{};
};

TEST_F(UpgradePhases, stop_nothing_before_everything_is_saved)
{
    const test_support::windows_search search;
    set_search_start_type(SERVICE_AUTO_START);
    search.start();
    const toy_process tray{fixture->program(L"Quorbel.SystemTray.exe")};
    const toy_process elsewhere{L"Quorbel.Comment.exe"};
    upgrade.user_sid += L'1';
    EXPECT_EQ(thrown_by(calling(begin)), "Interactive user changed during upgrade");
    upgrade = fixture->context();
    EXPECT_EQ( // the session is 0 then
        THROWN_WITH(calling(begin), ProcessIdToSessionId, TRUE, {0, 1, 0}),
        "QBL is running in another session; close it there before upgrading");
    fixture->powershell.set_order(L"EmptyLog", L"capture-0");
    EXPECT_EQ(thrown_by(calling(begin)), "Cannot capture original package registration");
    EXPECT_EQ(thrown_by(calling(begin)), "Cannot create unique recovery directory (183)") << "it is kept";
    EXPECT_FALSE(tray.exit_code());
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_AUTO_START});

    std::filesystem::remove_all(upgrade.workspace);
    fixture->powershell.clear_orders();
    // Not every Wine can read a service's delayed start.
    const test_support::intercepted_import<"QueryServiceConfig2W", decltype(QueryServiceConfig2W)> delayed{
        this_module, [](SC_HANDLE, DWORD, LPBYTE info, auto...) {
            *info = TRUE;
            return std::optional{TRUE};
        }};
    std::vector<std::wstring> access; // to the folders created
    const test_support::intercepted_import<
        "ConvertStringSecurityDescriptorToSecurityDescriptorW",
        decltype(ConvertStringSecurityDescriptorToSecurityDescriptorW)>
        descriptors{this_module, [&](LPCWSTR text, auto...) {
                        access.emplace_back(text);
                        return std::optional<BOOL>{};
                    }};
    EXPECT_EQ( // opened for its state, its start type and then its delayed start
        THROWN_WITH(calling(begin), OpenServiceW, nullptr, {ERROR_ACCESS_DENIED, 3}),
        "Cannot read Windows Search delayed start (5)");
    std::filesystem::remove_all(upgrade.workspace);
    access.clear();
    CharUpperW(upgrade.product_directory.data());
    EXPECT_EQ(thrown_by(calling(begin)), "");
    EXPECT_TRUE(has_marker(upgrade, marker::SEARCH_DELAYED_START));
    EXPECT_EQ(tray.exit_code(), 0U);
    EXPECT_FALSE(elsewhere.exit_code()) << "it is not in the suite's folder";
    const std::wstring others = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;";
    const std::wstring user = L";;;" + upgrade.user_sid + L")";
    EXPECT_THAT(access, ElementsAre(others + L"GRGX" + user, others + L"FA" + user));
    EXPECT_EQ(thrown_by(calling(begin)), "Another controlled upgrade is active");
}

TEST_F(UpgradePhases, refuse_programs_that_restart_and_ignore_those_that_end)
{
    const toy_process program{fixture->program(L"Quorbel.HotkeyHandler.exe")};
    std::deque<toy_process> latecomers; // they ignore requests to close
    std::vector<DWORD> limits;
    const test_support::fake_clock clock{this_module};
    const test_support::intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> waits{
        this_module, [&](HANDLE process, DWORD limit) {
            if (limit <= 5000) { // a latecomer's start has a longer one
                limits.push_back(limit);
                if (limit != 0) {
                    latecomers.emplace_back(fixture->program(L"Quorbel.SystemTray.exe"), L"--window=ignores");
                }
            }
            return std::optional{WaitForSingleObjectEx(process, limit == 1000 ? 10 : limit, FALSE)};
        }};
    const test_support::failing_import<"Process32FirstW", decltype(Process32FirstW)> listings{
        this_module, FALSE, {0, 100}};
    const auto refuse = testing::ThrowsMessage<std::runtime_error>(
        "QBL processes survived shutdown; refusing to replace their files");
    EXPECT_THAT(calling(stop), refuse);
    EXPECT_EQ(listings.calls(), 8U) << "programs and hosts, before and after each of two passes";
    EXPECT_THAT(limits, ElementsAre(5000U, 0U, 1000U, 5000U, 0U));
    EXPECT_EQ(latecomers.front().exit_code(), 1U) << "it must be killed";

    const test_support::failing_import<"ProcessIdToSessionId", decltype(ProcessIdToSessionId)> no_session{
        this_module, FALSE, {ERROR_INVALID_PARAMETER, 1, 0}};
    EXPECT_EQ(thrown_by(calling(stop)), "") << "programs that end are ignored";
    const toy_process host{
        L"dllhost.exe", L"--load=" + test_support::toy_library(L"Sorvane.Tag.ShellExtension.dll")};
    EXPECT_EQ(THROWN_WITH(calling(stop), OpenProcess, nullptr, {ERROR_INVALID_PARAMETER, 1, 0}), "");
}

TEST_F(UpgradePhases, ignore_a_program_that_ends_while_it_is_inspected)
{
    const toy_process program{fixture->program(L"Quorbel.exe")};
    const test_support::intercepted_import<"QueryFullProcessImageNameW", decltype(QueryFullProcessImageNameW)>
        inspection{this_module, [&](auto...) {
                       test_support::end_programs(L"Quorbel.exe");
                       SetLastError(ERROR_GEN_FAILURE);
                       return std::optional{FALSE};
                   }};
    const test_support::failing_import<"K32EnumProcessModulesEx", decltype(K32EnumProcessModulesEx)>
        no_modules{this_module, FALSE, {ERROR_GEN_FAILURE}};
    EXPECT_EQ(thrown_by(calling(stop)), "");
    EXPECT_EQ(no_modules.calls(), 1U);
}

TEST_F(UpgradePhases, undo_only_what_was_done)
{
    std::filesystem::create_directories(upgrade.workspace);
    write_marker(upgrade, marker::BACKUP_COMPLETE);
    upgrade_guard(true);
    EXPECT_EQ(thrown_by(calling(rollback)), "");
    EXPECT_FALSE(guard_is_live());
    EXPECT_THAT(session.messages(), testing::IsEmpty()) << "nothing had been stopped";

    std::filesystem::remove_all(upgrade.workspace);
    EXPECT_EQ(thrown_by(calling(begin)), "");
    EXPECT_EQ(thrown_by(calling(rollback)), "");
    const std::wstring none =
        L"Controlled upgrade: Windows Search is not installed on this system; nothing to restore.";
    EXPECT_THAT(
        session.messages(), testing::Contains(test_support::posted_message{INSTALLMESSAGE_INFO, none}));
}

TEST_F(UpgradePhases, undo_as_much_as_possible_after_a_failure)
{
    const test_support::windows_search search; // starts on demand; stopped
    EXPECT_EQ(thrown_by(calling(install_packages)), "Upgrade backup is missing");
    EXPECT_EQ(thrown_by(calling(begin)), "");
    EXPECT_EQ(thrown_by(calling(finish)), "Package verification was not completed");
    write_marker(upgrade, marker::PACKAGES_TOUCHED);
    write_marker(upgrade, marker::PACKAGES_VERIFIED);
    fixture->powershell.register_package(L"Quorbel.Plexa", L"2.0.0.0");
    fixture->powershell.set_order(L"Fail", L"restore-runtime");
    EXPECT_EQ(
        THROWN_WITH(calling(finish), RegDeleteKeyExW, ERROR_ACCESS_DENIED, {0}),
        "Cannot release upgrade guard; " + FAILED_SCRIPT + "; ");
    EXPECT_TRUE(guard_is_live()) << "it must be taken again";
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_DISABLED});

    fixture->powershell.clear_orders();
    std::filesystem::remove(saved_package(upgrade, 0));
    EXPECT_EQ(
        THROWN_WITH(calling(rollback), RegSetValueExW, ERROR_ACCESS_DENIED, {0}),
        "Rollback recovery incomplete: Cannot persist upgrade guard" + FAILED_SCRIPT + "; ");
    EXPECT_THAT(
        test_support::registered_packages(),
        ElementsAre(L"Quorbel.Paste 1.5.0.0 Ok", L"Sorvane.Icon 1.5.0.0 Ok"));
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_DEMAND_START});
    EXPECT_EQ(search.starts(), 0U);
    EXPECT_EQ(
        THROWN_WITH(calling(restore_runtime), OpenServiceW, nullptr, {ERROR_ACCESS_DENIED, 1, 0}),
        "Cannot change Windows Search startup type; Cannot open Windows Search; ");
}

} // namespace
} // namespace custom_actions::controlled_upgrade
