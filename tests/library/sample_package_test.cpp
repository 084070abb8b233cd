#include "custom_actions/common/scoped_handle.h"
#include "support/child_process.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <filesystem>
#include <iterator>
#include <map>
#include <string>

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
