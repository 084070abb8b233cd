// The whole road of a controlled upgrade through the real installer: from 1.5.0 of the sample package
// to 2.0.0, while the suite, a shell host and Windows Search run; and the way back from each kind of failure.

#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/upgrade/early_upgrade.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "tests/support/installation.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/scripted_session.h"
#include "tests/support/test_limit.h"
#include "tests/support/toy_suite.h"
#include "tests/support/upgrade_scene.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

const std::wstring FOLDER = L"C:\\Program Files\\Quorbel\\";

std::size_t running(const wchar_t* image)
{
    using custom_actions::listing;
    return custom_actions::find_processes_by_image({image}, listing::strict).size();
}

std::string release_notes()
{
    std::ifstream file{R"(C:\Program Files\Quorbel\release_notes.txt)"};
    std::string line;
    std::getline(file, line);
    return line;
}

class ControlledUpgrade : public testing::Test {
protected:
    // 1.5.0 is installed and runs.
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "installs packages on this machine: set DISPOSABLE_MACHINE where that may be";
        }
        allow_test(std::chrono::seconds{100});
        end_suite();
        remove_sample_packages();
        ASSERT_EQ(run_installer(sample_package(L"1.5.0")).result, 0U);
        powershell.emplace();
        scheduler.emplace();
        powershell->register_package(L"Sorvane.Icon", L"1.5.0.0");
        powershell->register_package(L"Quorbel.Paste", L"1.5.0.0");
        powershell->open_folders({L"file:///C:/Users"});
        search.emplace();
        search->start();
        main_program.emplace(FOLDER + L"Quorbel.exe");
        helper.emplace(FOLDER + L"Quorbel.Kindra.HelperService.exe");
        tray.emplace(FOLDER + L"Quorbel.SystemTray.exe");
        tagging.emplace(FOLDER + L"Quorbel.AutoTagging.Service.exe", L"--window=ignores");
        host.emplace(
            L"explorer.exe", L"--window=none --load=" + toy_library(L"Sorvane.Rate.ShellExtension.dll"));
    }

    void TearDown() override
    {
        if (machine_is_disposable()) {
            end_suite();
            remove_sample_packages();
            end_explorer();
            std::filesystem::remove_all(FOLDER); // what was put back there without an installation
            for (const auto& left : std::filesystem::directory_iterator{"C:\\windows\\Temp"}) {
                if (left.path().filename().wstring().starts_with(L"QBL-upgrade-")) {
                    std::filesystem::remove_all(left);
                }
            }
        }
    }

    std::vector<std::string> lines(const installation& run) const
    {
        return run.lines_after("Controlled upgrade: ");
    }

    // What did not close by itself was ended; the recovery task has started two of the programs that were
    // closed early, and nothing is left of it.
    void expect_programs_are_back()
    {
        EXPECT_EQ(main_program->exit_code(), 0U);
        EXPECT_EQ(helper->exit_code(), 0U);
        EXPECT_EQ(tagging->exit_code(), 1U);
        EXPECT_EQ(host->exit_code(), 1U);
        EXPECT_EQ(running(L"Quorbel.SystemTray.exe"), 1U);
        EXPECT_EQ(running(L"Quorbel.Kindra.HelperService.exe"), 1U);
        EXPECT_EQ(running(L"Quorbel.AutoTagging.Service.exe"), 0U);
        EXPECT_EQ(running(L"explorer.exe"), 1U);
        EXPECT_EQ(running(L"Quorbel.exe"), 1U);
        EXPECT_EQ(scheduler->tasks().size(), 0U);
        EXPECT_EQ(search->state(), DWORD{SERVICE_RUNNING});
        EXPECT_FALSE(custom_actions::controlled_upgrade::guard_is_live());
        EXPECT_EQ(powershell->refused(), L"");
    }

    static std::filesystem::path recovery_state(const installation& run)
    {
        const auto found = run.lines_after("Controlled upgrade: Recovery state: ");
        return found.empty() ? "" : found.front();
    }

    // The upgrade fails, and everything is as it was.
    installation expect_undone_upgrade(const std::wstring& properties)
    {
        const auto before = registered_packages(*powershell);
        const installation run = run_installer(sample_package(L"2.0.0"), properties);
        EXPECT_EQ(run.result, DWORD{ERROR_INSTALL_FAILURE});
        EXPECT_EQ(release_notes(), "Quorbel 1.5.0");
        EXPECT_EQ(registered_packages(*powershell), before);
        recover_after_failure();
        expect_programs_are_back();
        return run;
    }

    // What the package calls at the end of an installation that failed. Wine would call it before it rolls
    // back.
    void recover_after_failure()
    {
        scripted_session session{GetModuleHandleW(nullptr)};
        const auto tasks = scheduler->tasks();
        ASSERT_EQ(tasks.size(), 1U);
        session.set_property(L"QblEarlyRecoveryTask", tasks.begin()->first);
        custom_actions::early_upgrade::recover(session.handle());
    }

    std::optional<powershell_stand_in> powershell;
    std::optional<scheduler_stand_in> scheduler;
    std::optional<windows_search> search;
    std::optional<toy_process> main_program;
    std::optional<toy_process> helper;
    std::optional<toy_process> tray;
    std::optional<toy_process> tagging;
    std::optional<toy_process> host;
};

TEST_F(ControlledUpgrade, replaces_everything_and_brings_everything_back)
{
    const installation run = run_installer(sample_package(L"2.0.0"));
    EXPECT_EQ(run.result, 0U);
    EXPECT_EQ(release_notes(), "Quorbel 2.0.0");
    EXPECT_EQ(registered_packages(*powershell).size(), 8U);
    EXPECT_THAT(registered_packages(*powershell), Each(EndsWith(L" 2.0.0.0 Ok")));
    expect_programs_are_back();
    EXPECT_THAT(
        lines(run),
        IsSupersetOf(
            {"Early graceful outcome: exited 3; remaining 1",
             "Windows Search restart blocked; saved startup type 3",
             "Windows Search stopped and restart blocked before file replacement",
             "Windows Search startup configuration restored: 3",
             "Windows Search restarted to its previous running state.",
             "Early recovery completed as original desktop user."}));
    EXPECT_THAT(powershell->scripts(), Contains(HasSubstr(L"--open-tab=what-new")));
    EXPECT_THAT(powershell->folders(), ElementsAre(L"file:///C:/Users"));
}

TEST_F(ControlledUpgrade, is_undone_where_a_package_cannot_be_registered)
{
    powershell->tell(L"FailAdd", L"Sorvane.Rate.Package.msix");
    const installation run = expect_undone_upgrade(L"");
    EXPECT_THAT(lines(run), Contains(HasSubstr("install-3 finished in ")));
    EXPECT_THAT(lines(run), Not(Contains(HasSubstr("install-4 "))));
    EXPECT_TRUE(std::filesystem::exists(recovery_state(run) / "rollback-complete"));
}

TEST_F(ControlledUpgrade, is_undone_where_the_tray_does_not_return)
{
    powershell->tell(L"LoseStart", L"Quorbel.SystemTray.exe");
    powershell->tell(L"TrayWaitMs", 500);
    const installation run = expect_undone_upgrade(L"");
    EXPECT_THAT(
        lines(run),
        IsSupersetOf(
            {"Runtime failure: candidate shutdown attempted before MSI file rollback.",
             "Rollback recovery incomplete: User operation failed; see retained upgrade recovery logs; "}))
        << "nor did the old one";
    EXPECT_FALSE(std::filesystem::exists(recovery_state(run) / "rollback-complete"));
}

TEST_F(ControlledUpgrade, is_undone_where_something_fails_after_it)
{
    const installation run = expect_undone_upgrade(L"FAIL_ON_PURPOSE=1");
    EXPECT_TRUE(std::filesystem::exists(recovery_state(run) / "committed"));
    EXPECT_TRUE(std::filesystem::exists(recovery_state(run) / "rollback-complete"));
}

} // namespace
} // namespace test_support
