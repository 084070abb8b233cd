#include "custom_actions/common/scoped_handle.h"
#include "support/child_process.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace test_support {
namespace {

// Two columns of a table of the package, a text and the number that goes with it.
std::map<std::string, int> package_column(const wchar_t* query)
{
    using custom_actions::record_handle; // MsiCloseHandle closes each of these
    const std::filesystem::path package =
        std::filesystem::path{this_program()}.parent_path() / L"package" / L"quorbel-1.5.0.msi";
    record_handle database;
    record_handle view;
    EXPECT_EQ(MsiOpenDatabaseW(package.c_str(), MSIDBOPEN_READONLY, database.put()), 0U);
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

std::vector<std::string> words(const char* text)
{
    std::istringstream stream{text};
    return {std::istream_iterator<std::string>{stream}, {}};
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
    constexpr int rollback = 256;
    const std::pair<int, const char*> kinds[]{
        {immediate,
         "check_upgrade_type notify_restart_recommended log_app_control_state close_and_kill_our_processes "
         "capture_search_state prepare_controlled_upgrade early_close_upgrade prepare_file_rollback"},
        {immediate_at_any_result, "recover_early_upgrade recover_after_failure"},
        {sets_property, "set_msix_install_package set_rollback_msix_package set_msix_uninstall_package"},
        {deferred_as_user,
         "iconhandler_add_defaults_to_registry iconhandler_remove_registry msix_install_package "
         "restore_built_in_new_context_menu msix_uninstall_package"},
        {deferred_as_user + rollback, "rollback_icon_handler rollback_msix_package"},
        {deferred,
         "propertyhandler_update_registry propertyhandler_remove_registry restore_explorer stop_search "
         "restore_search begin_controlled_upgrade install_upgrade_packages finish_controlled_upgrade "
         "save_files fail_on_purpose"},
        {deferred + rollback,
         "rollback_explorer rollback_search rollback_property_handler rollback_controlled_upgrade "
         "put_files_back"},
    };
    std::map<std::string, int> expected;
    for (const auto& [type, actions] : kinds) {
        for (const std::string& action : words(actions)) {
            expected[action] = type;
        }
    }
    EXPECT_EQ(package_column(L"SELECT `Action`, `Type` FROM `CustomAction`"), expected);

    const auto places = package_column(L"SELECT `Action`, `Sequence` FROM `InstallExecuteSequence`");
    for (const auto& [action, type] : expected) {
        ASSERT_TRUE(places.contains(action)) << action;
        if (type >= deferred_as_user) {
            EXPECT_LT(places.at("InstallInitialize"), places.at(action)) << action;
            EXPECT_LT(places.at(action), places.at("InstallFinalize")) << action;
        }
    }
    const char* const upgrade =
        "CostFinalize prepare_controlled_upgrade early_close_upgrade InstallValidate "
        "rollback_controlled_upgrade put_files_back begin_controlled_upgrade InstallExecute "
        "RemoveExistingProducts InstallFiles install_upgrade_packages finish_controlled_upgrade "
        "InstallFinalize recover_early_upgrade";
    for (const char* order :
         {upgrade,
          "capture_search_state close_and_kill_our_processes",
          "rollback_search stop_search InstallExecute",
          "InstallFiles restore_search",
          "RemoveExistingProducts ProcessComponents"}) {
        const auto actions = words(order);
        for (std::size_t i = 1; i != actions.size(); ++i) {
            EXPECT_LT(places.at(actions[i - 1]), places.at(actions[i])) << actions[i];
        }
    }

    const auto called = package_column(L"SELECT `Target`, `Type` FROM `CustomAction`");
    const loaded_library library;
    for (const std::string& action : pe_image{library.module()}.exported_names()) {
        EXPECT_TRUE(called.contains(action)) << action;
    }
}

} // namespace
} // namespace test_support
