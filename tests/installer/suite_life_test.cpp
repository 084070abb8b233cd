// The life of the suite on one machine, through the real installer. A call of an action that did not take
// place counts as a success there, so each step shows what its actions wrote and what they changed.

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/pe_image.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/toy_suite.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <string>

namespace test_support {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* VERSION_CHECK = "Custom action: check_upgrade_type: ";

std::optional<std::wstring> suite_value(const wchar_t* name)
{
    wchar_t text[64];
    DWORD size = sizeof text;
    const LSTATUS status = RegGetValueW(
        HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Brenmoor\Quorbel)", name, RRF_RT_REG_SZ, nullptr, text, &size);
    return status == ERROR_SUCCESS ? std::optional<std::wstring>{text} : std::nullopt;
}

constexpr const wchar_t* RELEASE_NOTES = LR"(C:\Program Files\Quorbel\release_notes.txt)";

// The first line of the installed file, or nothing where there is none.
std::string release_notes()
{
    std::ifstream file{RELEASE_NOTES};
    std::string line;
    std::getline(file, line);
    return line;
}

const std::wstring HANDLERS = LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
constexpr const wchar_t* FOREIGN_HANDLER = L"{11111111-2222-3333-4444-555555555555}";

std::optional<std::string> handler_of(const std::wstring& extension)
{
    return planted_value(HKEY_LOCAL_MACHINE, HANDLERS + L'\\' + extension, L"");
}

const std::wstring ICON_SLOT = LR"(Software\Classes\SystemFileAssociations\.ico\ShellEx\IconHandler)";
const std::wstring DRIVE = LR"(Software\Classes\Applications\Explorer.exe\Drives\Q\DefaultIcon)";

std::optional<std::string> user_value(const std::wstring& path)
{
    return planted_value(HKEY_CURRENT_USER, path, L"");
}

// Which of the suite's handlers there are, one for each type that has it.
std::size_t types_with_our_handler()
{
    return static_cast<std::size_t>(
        std::ranges::count_if(custom_actions::PROPERTY_HANDLER_EXTENSIONS, [](auto type) {
            return handler_of({type.begin(), type.end()}) ==
                   registry_text(L"{73A6EEEE-36B5-4536-A731-8F92EF883087}");
        }));
}

class SuiteLife : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "installs packages on this machine: set DISPOSABLE_MACHINE where that may be";
        }
        remove_traces();
    }

    void TearDown() override
    {
        if (machine_is_disposable()) {
            remove_traces();
            end_explorer();
        }
    }

    static void remove_traces()
    {
        remove_sample_packages();
        for (const wchar_t* type : {L"\\.jpg", L"\\.png"}) {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, (HANDLERS + type).c_str());
        }
        RegDeleteTreeW(HKEY_CURRENT_USER, ICON_SLOT.c_str());
        RegDeleteTreeW(HKEY_CURRENT_USER, DRIVE.c_str());
    }
};

constexpr const char* EXPLORER_RESTORED =
    "Explorer restoration completed for the original interactive session.";

DWORD own_session()
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return session;
}

// Search ran before and runs now. It was stopped and started once: with the files of `before` on the machine,
// and with those that are there now.
void expect_search_was_out_of_the_way(
    const installation& run, windows_search& search, const std::wstring& before)
{
    EXPECT_THAT(
        run.lines_after("Windows Search "),
        ElementsAre(
            "was running; transactional stop/restore scheduled.",
            "stopped before file changes.",
            "restored to running."));
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(search.stops(), 1U);
    EXPECT_EQ(search.starts(), 1U);
    EXPECT_EQ(search.line_at_stop(), before);
    const std::string now = release_notes();
    EXPECT_EQ(search.line_at_start(), (std::wstring{now.begin(), now.end()}));
    search.forget();
}

TEST_F(SuiteLife, runs_from_installation_over_two_upgrades_to_removal)
{
    ASSERT_EQ(suite_value(L"Version"), std::nullopt);
    plant_value(HKEY_LOCAL_MACHINE, HANDLERS + L"\\.jpg", L"", registry_text(FOREIGN_HANDLER));
    plant_value(HKEY_LOCAL_MACHINE, HANDLERS + L"\\.png", L"", registry_text(FOREIGN_HANDLER));

    plant_value(HKEY_CURRENT_USER, ICON_SLOT, L"", registry_text(FOREIGN_HANDLER));

    windows_search search{{.start_time = 300, .stop_time = 300, .watch = RELEASE_NOTES}};
    search.start();

    const installation first = run_installer(sample_package(L"1.4.1"));
    EXPECT_EQ(first.result, 0U);
    EXPECT_THAT(
        first.lines_after(VERSION_CHECK),
        ElementsAre(
            "Starting version check...",
            "INSTALLED_APP_VERSION not found. Falling back to 0.1.16.0.",
            "New: 1.4.1.0 Old: 0.1.16.0",
            "Detected MAJOR/MODERATE upgrade."));
    EXPECT_EQ(suite_value(L"Version"), L"1.4.1");
    EXPECT_EQ(suite_value(L"MinorUpgrade"), L"");
    EXPECT_EQ(release_notes(), "Quorbel 1.4.1");
    EXPECT_THAT(
        first.lines_after("Custom action: propertyhandler_updateregistry: "),
        ElementsAre("Starting...", "Registry updated successfully."));
    expect_search_was_out_of_the_way(first, search, L"");
    EXPECT_EQ(types_with_our_handler(), 63U) << "all but .png, which had another";
    EXPECT_EQ(handler_of(L".png"), registry_text(FOREIGN_HANDLER));
    EXPECT_THAT(
        first.lines_after("Custom action: iconhandler_add_defaults_to_registry: "),
        ElementsAre("Starting...", "Registry updated successfully."));
    EXPECT_EQ(user_value(ICON_SLOT), registry_text(L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}"));
    EXPECT_THAT(
        first.lines_after("Smart App Control: "),
        ElementsAre("not reported by this Windows build (VerifiedAndReputablePolicyState=absent, "
                    "RegGetValueW returned 2)."));

    const std::wstring folder = L"C:\\Program Files\\Quorbel\\";
    const toy_process main_program{folder + L"Quorbel.exe"};
    const toy_process comment{folder + L"Quorbel.Comment.exe", L"--window=ignores"};

    const installation minor = run_installer(sample_package(L"1.4.2"));
    EXPECT_EQ(minor.result, 0U);
    EXPECT_THAT(
        minor.lines_after(VERSION_CHECK),
        ElementsAre(
            "Starting version check...",
            "Found INSTALLED_APP_VERSION in registry.",
            "New: 1.4.2.0 Old: 1.4.1.0",
            "Detected MINOR upgrade."));
    EXPECT_EQ(suite_value(L"Version"), L"1.4.2");
    EXPECT_THAT(
        minor.lines_after("Custom action: close_and_kill_our_processes: "),
        ElementsAre(
            "Starting...",
            "Resident processes: closing " + std::to_string(main_program.id()) + " " +
                std::to_string(comment.id()),
            "Shell extension hosts: none running.",
            "Completed."));
    EXPECT_EQ(main_program.exit_code(), 0U) << "it closed by itself";
    EXPECT_EQ(comment.exit_code(), 1U);
    EXPECT_THAT(minor.lines_after("Window Organizer hook hosts released."), ElementsAre(""));
    EXPECT_THAT(minor.lines_after(EXPLORER_RESTORED), ElementsAre(""));
    EXPECT_EQ(suite_value(L"MinorUpgrade"), L"1");
    EXPECT_EQ(release_notes(), "Quorbel 1.4.2");
    expect_search_was_out_of_the_way(minor, search, L"Quorbel 1.4.1");

    const installation major = run_installer(sample_package(L"1.5.0"));
    EXPECT_EQ(major.result, 0U);
    EXPECT_THAT(
        major.lines_after(VERSION_CHECK),
        ElementsAre(
            "Starting version check...",
            "Found INSTALLED_APP_VERSION in registry.",
            "New: 1.5.0.0 Old: 1.4.2.0",
            "Detected MAJOR/MODERATE upgrade."));
    EXPECT_EQ(suite_value(L"Version"), L"1.5.0");
    EXPECT_EQ(suite_value(L"MinorUpgrade"), L"");
    EXPECT_EQ(release_notes(), "Quorbel 1.5.0");
    expect_search_was_out_of_the_way(major, search, L"Quorbel 1.4.2");
    EXPECT_EQ(types_with_our_handler(), 63U);
    for (const auto* upgrade : {&minor, &major}) {
        EXPECT_THAT(upgrade->lines_after("Quorbel has been removed."), IsEmpty())
            << "the notice belongs to the removal of the suite, not of its older version";
    }

    plant_value(HKEY_CURRENT_USER, DRIVE, L"", registry_text(L"ours.ico"));
    plant_value(HKEY_CURRENT_USER, DRIVE, L"sorvane_drive_icon_applied", registry_text(L"ours.ico"));

    const installation removal = run_installer(sample_package(L"1.5.0"), L"REMOVE=ALL");
    EXPECT_EQ(removal.result, 0U);
    EXPECT_THAT(removal.lines_after(VERSION_CHECK), IsEmpty());
    EXPECT_THAT(removal.lines_after("Quorbel has been removed."), ElementsAre(""));
    EXPECT_THAT(removal.lines_after("Please restart when it is convenient for you."), ElementsAre(""));
    EXPECT_EQ(suite_value(L"Version"), std::nullopt);
    EXPECT_EQ(release_notes(), "");
    expect_search_was_out_of_the_way(removal, search, L"Quorbel 1.5.0");
    EXPECT_THAT(
        removal.lines_after("Custom action: propertyhandler_removeregistry: "),
        ElementsAre("Starting...", "Registry updated successfully."));
    EXPECT_EQ(types_with_our_handler(), 0U);
    EXPECT_EQ(handler_of(L".jpg"), registry_text(FOREIGN_HANDLER));
    EXPECT_THAT(
        removal.lines_after("Custom action: iconhandler_remove_registry: "),
        ElementsAre("Starting...", "Registry updated successfully."));
    EXPECT_EQ(user_value(ICON_SLOT), registry_text(FOREIGN_HANDLER));
    EXPECT_EQ(user_value(DRIVE), std::nullopt);
    EXPECT_THAT(
        removal.lines_after("Custom action: restore_built_in_new_context_menu: "),
        ElementsAre("Restoring built in New (just in case)...", "completed"));
}

TEST_F(SuiteLife, brings_explorer_back_after_success_and_after_failure)
{
    struct {
        const wchar_t* properties;
        UINT result;
    } const runs[]{{L"", 0}, {L"FAIL_ON_PURPOSE=1", ERROR_INSTALL_FAILURE}};

    for (const auto& [properties, result] : runs) {
        remove_traces();
        end_explorer();
        const toy_process explorer{
            L"explorer.exe", L"--window=none --load=" + toy_library(L"Sorvane.Rate.ShellExtension.dll")};
        const installation run = run_installer(sample_package(L"1.5.0"), properties);
        EXPECT_EQ(run.result, result);
        EXPECT_EQ(explorer.exit_code(), 1U) << "it had an extension of the suite loaded";
        EXPECT_THAT(run.lines_after(EXPLORER_RESTORED), ElementsAre(""))
            << "once, forward or in the rollback";
        EXPECT_TRUE(custom_actions::explorer_running_in_session(own_session()));
        EXPECT_EQ(suite_value(L"Version").has_value(), result == 0);
        EXPECT_EQ(types_with_our_handler(), result == 0 ? 64U : 0U)
            << "a failure leaves no registration behind";
        EXPECT_EQ(user_value(ICON_SLOT).has_value(), result == 0);
    }
}

TEST_F(SuiteLife, brings_search_back_after_an_upgrade_that_fails)
{
    const installation first = run_installer(sample_package(L"1.4.2"));
    EXPECT_THAT(first.lines_after("Windows Search "), ElementsAre("stopped or absent; leave unchanged."));

    windows_search search{{.watch = RELEASE_NOTES}};
    search.start();
    const installation failed = run_installer(sample_package(L"1.5.0"), L"FAIL_ON_PURPOSE=1");
    EXPECT_EQ(failed.result, DWORD{ERROR_INSTALL_FAILURE});
    expect_search_was_out_of_the_way(failed, search, L"Quorbel 1.4.2");
    EXPECT_EQ(run_installer(sample_package(L"1.5.0")).result, 0U) << "the next try";
}

// Two columns of a table of the package, a text and the number that goes with it.
std::map<std::string, int> package_column(const wchar_t* query)
{
    using custom_actions::record_handle; // MsiCloseHandle closes each of these
    record_handle database;
    record_handle view;
    EXPECT_EQ(MsiOpenDatabaseW(sample_package(L"1.5.0").c_str(), MSIDBOPEN_READONLY, database.put()), 0U);
    EXPECT_EQ(MsiDatabaseOpenViewW(database.get(), query, view.put()), 0U);
    EXPECT_EQ(MsiViewExecute(view.get(), 0), 0U);
    std::map<std::string, int> rows;
    for (record_handle row; MsiViewFetch(view.get(), row.put()) == ERROR_SUCCESS;) {
        char text[80];
        DWORD length = sizeof text;
        EXPECT_EQ(MsiRecordGetStringA(row.get(), 1, text, &length), 0U);
        rows[text] = MsiRecordGetInteger(row.get(), 2);
    }
    return rows;
}

// A wrong type, or a deferred action outside of the script, is played here without a word; on Windows the
// action runs at the wrong time or as another user, or the installation fails.
TEST(SamplePackage, calls_every_action_that_the_library_exports)
{
    constexpr int immediate = 1; // a library in the Binary table, as the installing user, its result observed
    constexpr int immediate_at_any_result = 1 + 64;
    constexpr int sets_property = 51;
    constexpr int deferred_as_user = 1 + 1024;
    constexpr int deferred = 1 + 1024 + 2048; // from the script, as LocalSystem
    constexpr int rollback = deferred + 256;
    const std::map<std::string, int> expected{
        {"check_upgrade_type", immediate},
        {"notify_restart_recommended", immediate},
        {"propertyhandler_update_registry", deferred},
        {"propertyhandler_remove_registry", deferred},
        {"iconhandler_add_defaults_to_registry", deferred_as_user},
        {"iconhandler_remove_registry", deferred_as_user},
        {"restore_built_in_new_context_menu", deferred_as_user},
        {"log_app_control_state", immediate},
        {"close_and_kill_our_processes", immediate},
        {"restore_explorer", deferred},
        {"rollback_explorer", rollback},
        {"capture_search_state", immediate},
        {"rollback_search", rollback},
        {"stop_search", deferred},
        {"restore_search", deferred},
        {"rollback_property_handler", rollback},
        {"rollback_icon_handler", deferred_as_user + 256},
        {"prepare_controlled_upgrade", immediate},
        {"early_close_upgrade", immediate},
        {"rollback_controlled_upgrade", rollback},
        {"begin_controlled_upgrade", deferred},
        {"install_upgrade_packages", deferred},
        {"finish_controlled_upgrade", deferred},
        {"recover_early_upgrade", immediate_at_any_result},
        {"recover_after_failure", immediate_at_any_result},
        {"set_msix_install_package", sets_property},
        {"msix_install_package", deferred_as_user},
        {"set_rollback_msix_package", sets_property},
        {"rollback_msix_package", deferred_as_user + 256},
        {"set_msix_uninstall_package", sets_property},
        {"msix_uninstall_package", deferred_as_user},
        {"prepare_file_rollback", immediate},
        {"put_files_back", rollback},
        {"save_files", deferred},
        {"fail_on_purpose", deferred},
    };
    EXPECT_EQ(package_column(L"SELECT `Action`, `Type` FROM `CustomAction`"), expected);

    const auto places = package_column(L"SELECT `Action`, `Sequence` FROM `InstallExecuteSequence`");
    for (const auto& [action, type] : expected) {
        ASSERT_TRUE(places.contains(action)) << action;
        if (type >= deferred_as_user) {
            EXPECT_LT(places.at("InstallInitialize"), places.at(action)) << action;
            EXPECT_LT(places.at(action), places.at("InstallFinalize")) << action;
        }
    }
    const char* const upgrade[]{
        "CostFinalize",
        "prepare_controlled_upgrade",
        "early_close_upgrade",
        "InstallValidate",
        "rollback_controlled_upgrade",
        "put_files_back",
        "begin_controlled_upgrade",
        "InstallExecute",
        "RemoveExistingProducts",
        "InstallFiles",
        "install_upgrade_packages",
        "finish_controlled_upgrade",
        "InstallFinalize",
        "recover_early_upgrade",
    };
    for (std::size_t i = 1; i != std::size(upgrade); ++i) {
        EXPECT_LT(places.at(upgrade[i - 1]), places.at(upgrade[i])) << upgrade[i];
    }
    EXPECT_LT(places.at("capture_search_state"), places.at("close_and_kill_our_processes"));
    EXPECT_LT(places.at("rollback_search"), places.at("stop_search"));
    EXPECT_LT(places.at("stop_search"), places.at("InstallExecute"));
    EXPECT_LT(places.at("InstallExecute"), places.at("RemoveExistingProducts"));
    EXPECT_LT(places.at("InstallFiles"), places.at("restore_search"));
    EXPECT_LT(places.at("RemoveExistingProducts"), places.at("ProcessComponents"));

    const auto called = package_column(L"SELECT `Target`, `Type` FROM `CustomAction`");
    const loaded_library library;
    for (const std::string& action : pe_image{library.module()}.exported_names()) {
        EXPECT_TRUE(called.contains(action)) << action;
    }
}

} // namespace
} // namespace test_support
