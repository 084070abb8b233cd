// What Wine's installer passes and Windows' does not: an action at the wrong time or as another user, a
// failure that is not undone.

#include "custom_actions/common/scoped_handle.h"
#include "support/child_process.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <filesystem>
#include <string>
#include <utility>

namespace test_support {
namespace {

// The texts that a query of the package finds, each with a space behind it.
std::string found_by(const std::string& query)
{
    const auto path = std::filesystem::path{this_program()}.replace_filename(L"package\\quorbel-1.5.0.msi");
    custom_actions::record_handle database; // MsiCloseHandle closes each of these
    custom_actions::record_handle view;
    EXPECT_EQ(MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_READONLY, database.put()), 0U);
    EXPECT_EQ(MsiDatabaseOpenViewA(database.get(), query.c_str(), view.put()), 0U) << query;
    EXPECT_EQ(MsiViewExecute(view.get(), 0), 0U);
    std::string found;
    for (custom_actions::record_handle row; MsiViewFetch(view.get(), row.put()) == ERROR_SUCCESS;) {
        char text[80];
        DWORD length = sizeof text;
        EXPECT_EQ(MsiRecordGetStringA(row.get(), 1, text, &length), 0U);
        found.append(text).append(" ");
    }
    return found;
}

TEST(SamplePackage, calls_the_actions_when_and_as_whom_it_must)
{
    const std::string in_script = "`Sequence` > 1500 AND `Sequence` < 6600 AND ";
    const std::pair<std::string, std::string> actions_by_condition[]{
        // The installing user's, at once: before files in use are looked for (1400), and whatever comes of
        // it.
        {"`Type` = 1 AND `Sequence` > 1350 AND `Sequence` < 1400",
         "capture_search_state early_close_upgrade close_and_kill_our_processes "},
        {"`Type` = 65 AND (`Sequence` = -3 OR `Sequence` > 6600)",
         "recover_after_failure recover_early_upgrade "},
        // That user's later, LocalSystem's, and those of them that undo what is behind them.
        {in_script + "(`Type` = 1025 OR `Type` = 1281)",
         "iconhandler_remove_registry msix_uninstall_package restore_built_in_new_context_menu "
         "rollback_icon_handler iconhandler_add_defaults_to_registry rollback_msix_package "
         "msix_install_package "},
        {in_script + "(`Type` = 3073 OR `Type` = 3329) AND `Source` = 'custom_actions'",
         "rollback_controlled_upgrade begin_controlled_upgrade rollback_explorer rollback_search stop_search "
         "propertyhandler_remove_registry rollback_property_handler propertyhandler_update_registry "
         "install_upgrade_packages finish_controlled_upgrade fail_on_purpose restore_search "
         "restore_explorer "},
        {"`Type` = 1281 OR `Type` = 3329",
         "rollback_controlled_upgrade put_files_back rollback_explorer rollback_search "
         "rollback_property_handler rollback_icon_handler rollback_msix_package "},
        // Whom a failed upgrade must not call.
        {"`Condition` = 'NOT Installed AND NOT OLDER_VERSION_FOUND'",
         "set_rollback_msix_package rollback_property_handler rollback_icon_handler rollback_msix_package "},
    };
    for (const auto& [condition, actions] : actions_by_condition) {
        const std::string query =
            "SELECT `CustomAction`.`Action` FROM `CustomAction`, `InstallExecuteSequence` WHERE "
            "`CustomAction`.`Action` = `InstallExecuteSequence`.`Action` AND (";
        EXPECT_EQ(found_by(query + condition + ") ORDER BY `Sequence`"), actions) << condition;
    }
    const std::string query = "SELECT `Target` FROM `CustomAction` WHERE `Action` = ";
    EXPECT_EQ(found_by(query + "'recover_after_failure'"), "recover_early_upgrade ");
    EXPECT_EQ(found_by(query + "'rollback_msix_package'"), "msix_uninstall_package ");
}

} // namespace
} // namespace test_support
