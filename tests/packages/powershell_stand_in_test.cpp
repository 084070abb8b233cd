// The stand-in for PowerShell, where it could lie: what it refuses, and what its packages, folder windows and
// programs look like from one script to the next.

#include "custom_actions/packages/hidden_process.h"
#include "custom_actions/packages/msix_package.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/early_upgrade.h"
#include "custom_actions/upgrade/scripts.h"
#include "tests/support/child_process.h"
#include "tests/support/installation.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/upgrade_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace test_support {
namespace {

using namespace custom_actions::controlled_upgrade;
using custom_actions::run_hidden_process;
using custom_actions::run_powershell;
using testing::ElementsAre;

std::wstring replaced(std::wstring text, const std::wstring& what, const std::wstring& with)
{
    return text.replace(text.find(what), what.size(), with);
}

DWORD run(const std::wstring& command_line)
{
    return run_hidden_process(command_line).exit_code;
}

class PowerShellStandIn : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "takes PowerShell's place: set DISPOSABLE_MACHINE where that may be";
        }
        scene.emplace();
        stand_in = &scene->powershell;
        std::filesystem::create_directories(upgrade().workspace + L"\\output");
        folder = upgrade().product_directory;
        package = folder + L"\\Sorvane.Icon.Package.msix";
        newer = folder + L"\\2.msix";
        std::filesystem::copy_file(
            std::filesystem::path{this_program()}.parent_path() /
                LR"(package\2.0.0\Sorvane.Icon.Package.msix)",
            newer);
    }

    const context& upgrade() { return scene->context(); }

    // What the script's log says, behind its byte-order mark.
    std::string run_logged(const std::wstring& script)
    {
        try {
            run_powershell(0, upgrade(), script, L"test", 20'000);
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the log tells
        }
        std::ostringstream content;
        content
            << std::
                   ifstream{std::filesystem::path{upgrade().workspace + L"\\output\\test.log"}, std::ios::binary}
                       .rdbuf();
        EXPECT_TRUE(content.str().starts_with("\xEF\xBB\xBF"));
        return content.str().substr(3);
    }

    std::optional<upgrade_scene> scene;
    const powershell_stand_in* stand_in = nullptr;
    std::wstring folder;
    std::wstring package;
    std::wstring newer;
};

TEST_F(PowerShellStandIn, refuses_what_it_does_not_understand)
{
    const std::wstring add = custom_actions::install_package_command(package);
    const std::wstring commands[]{
        L"powershell.exe -NoProfile -Command \"x\"",
        L"powershell.exe -NoProfile -NonInteractive -WindowStyle Hidden -EncodedCommand !",
        replaced(add, L"Add-", L" Add-"),
        replaced(add, L" Stop", L" Stop "),
        replaced(add, L" Stop", L" Stop; Remove-Item 'x'"),
        replaced(add, L" Stop", L" stop"),
        replaced(add, L"Sorvane", L"it's"),      // the literal ends early
        replaced(add, L"Sorvane", L"it\u2019s"), // so it does at a typographic quote
        replaced(add, L".msix'", L".msix"),      // the literal does not end
        replaced(add, L".msix'", L".msix''' x"), // it ends, and something follows
    };
    for (const std::wstring& command : commands) {
        EXPECT_EQ(run(command), 64U) << testing::PrintToString(command);
        EXPECT_NE(command.find(stand_in->refused()), std::wstring::npos);
    }
    const std::wstring folders = upgrade().workspace + L"\\output\\folders.xml";
    EXPECT_THROW(
        run_powershell(0, upgrade(), capture_folders_script(upgrade()) + L"; x", L"test", 20'000),
        std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(folders)) << "nothing is done where the end is not understood";
    EXPECT_THAT(stand_in->packages(), testing::SizeIs(2)) << "those of the scene";
}

TEST_F(PowerShellStandIn, keeps_packages_from_script_to_script)
{
    const std::wstring add = custom_actions::install_package_command(package);
    const std::wstring capture = capture_script(newer);
    const std::wstring update = registration_script(newer, folder);
    const std::wstring remove = custom_actions::uninstall_package_command(L"sorvane.icon");

    const std::wstring other = L"Quorbel.Paste 1.4.0.0 Ok -";
    EXPECT_EQ(run(remove), 0U);
    EXPECT_EQ(run_logged(capture), "QBL_ABSENT\r\n");
    EXPECT_EQ(run(add), 0U);
    EXPECT_THAT(stand_in->packages(), ElementsAre(other, L"Sorvane.Icon 1.5.0.0 Ok " + folder));
    EXPECT_EQ(
        run_logged(capture),
        "QBL_REGISTERED\r\n\r\n\r\nName    : Sorvane.Icon\r\nVersion : 1.5.0.0\r\nStatus  : Ok\r\n\r\n\r\n"
        "QBL_RECOVERY_NORMALIZES_REGISTRATION\r\n");
    EXPECT_EQ(run_logged(update), "");
    EXPECT_THAT(stand_in->packages(), ElementsAre(other, L"Sorvane.Icon 2.0.0.0 Ok " + folder));
    EXPECT_THAT(run_logged(capture), testing::EndsWith("Status  : Ok\r\n\r\n"));

    stand_in->tell(L"AddStatus", L"Modified 2.msix");
    const std::string failed = "Package verification failed: Sorvane.Icon\r\n\r\n";
    EXPECT_EQ(run_logged(update), failed);
    EXPECT_THAT(run_logged(capture), testing::EndsWith("NORMALIZES_REGISTRATION\r\n"));
    stand_in->tell_nothing();
    stand_in->register_package(L"Sorvane.Icon", L"2.0.0.0", L"Ok", L"x86");
    EXPECT_EQ(run_logged(update), failed) << "two of the same version";

    stand_in->tell(L"KeepPackage", L"x86");
    const auto kept = run_hidden_process(remove);
    EXPECT_EQ(kept.exit_code, 1U);
    EXPECT_EQ(kept.error, L"Package remains registered after removal\r\n");
    EXPECT_EQ(run_logged(removal_script(package)), "Rollback package removal failed\r\n\r\n");
    stand_in->tell_nothing();
    EXPECT_EQ(run_logged(removal_script(package)), "");
    EXPECT_THAT(stand_in->packages(), ElementsAre(other));
    EXPECT_EQ(run(remove), 0U) << "nothing is there to be removed";

    EXPECT_EQ(run(replaced(add, L"Sorvane", L"absent")), 1U);
    EXPECT_EQ(
        run_logged(registration_script(newer, L"C:\\absent")),
        "Add-AppxPackage : Cannot find path 'C:\\absent'\r\n\r\n");
    stand_in->tell(L"FailAdd", L"Icon.Package");
    EXPECT_EQ(run(add), 1U);
    EXPECT_THAT(stand_in->packages(), ElementsAre(other));
    EXPECT_EQ(stand_in->refused(), L"");
}

TEST_F(PowerShellStandIn, opens_folders_and_starts_programs)
{
    stand_in->open_folders({L"file:///C:/R&D <1>", L"https://quorbel.example", L"FILE:///C:/\u00FC"});
    EXPECT_EQ(run_logged(capture_folders_script(upgrade())), "");
    stand_in->open_folders({L"file:///c:/r&d <1>"});
    const std::wstring tray = scene->program(L"Quorbel.SystemTray.exe");
    std::filesystem::rename(tray, tray + L".away");
    const std::wstring restore = restore_runtime_script(upgrade(), false);
    EXPECT_THAT(run_logged(restore), testing::StartsWith("Start-Process : ")) << "there is no tray yet";
    EXPECT_THAT(stand_in->folders(), ElementsAre(L"file:///c:/r&d <1>", L"FILE:///C:/\u00FC"));

    std::filesystem::rename(tray + L".away", tray);
    EXPECT_EQ(run_logged(restore), "");
    EXPECT_THAT(stand_in->folders(), testing::SizeIs(2)) << "both are open";
    EXPECT_EQ(end_programs(L"Quorbel.SystemTray.exe"), 1U);

    const std::wstring recover =
        L"powershell.exe " +
        custom_actions::powershell_arguments(
            custom_actions::early_upgrade::recovery_script({folder + L"\\absent.exe", tray}), "");
    EXPECT_EQ(run(recover), 0U);
    EXPECT_EQ(run(recover), 0U) << "it runs already";
    EXPECT_EQ(end_programs(L"Quorbel.SystemTray.exe"), 1U);

    stand_in->tell(L"TrayWaitMs", 0);
    context elsewhere = upgrade();
    elsewhere.session_id += 1;
    EXPECT_EQ(run_logged(restore_runtime_script(elsewhere, false)), "Tray did not return\r\n\r\n");
    EXPECT_EQ(stand_in->refused(), L"");
}

} // namespace
} // namespace test_support
