#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"

#include <optional>
#include <stdexcept>
#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr DWORD FOLDERS_SCRIPT_LIMIT_MS = 15'000;

void save_package(MSIHANDLE session, const context& context, std::size_t index)
{
    const std::wstring saved = saved_package(context, index);
    check_bool(
        CopyFileW(installed_package(context, index).c_str(), saved.c_str(), TRUE),
        "Cannot back up installed package before upgrade");
    const std::wstring digit = std::to_wstring(index);
    const std::string output =
        run_powershell(session, context, capture_script(saved), L"capture-" + digit, PACKAGE_SCRIPT_LIMIT_MS);
    if (output.find(REGISTERED_OUTPUT) != std::string::npos) {
        write_marker(context, marker::REGISTERED + digit);
    } else if (output.find(ABSENT_OUTPUT) == std::string::npos) {
        throw std::runtime_error{"Cannot capture original package registration"};
    }
    if (output.find(NORMALIZED_OUTPUT) != std::string::npos) {
        upgrade_log(
            session,
            L"Existing registration differs from installed package; rollback will normalize it to the saved "
            L"installed archive: " +
                saved);
    }
}

void record_helper(const context& context)
{
    if (image_runs_in_session(HELPER_IMAGES, context.session_id)) {
        write_marker(context, marker::HELPER_RUNNING);
    }
}

// Returns the start type; nothing if the service is not installed.
std::optional<DWORD> record_search(const context& context)
{
    if (search_is_running()) {
        write_marker(context, marker::SEARCH_RUNNING);
    }
    const std::optional<DWORD> start_type = read_search_start_type();
    if (start_type) {
        write_marker(context, marker::SEARCH_START_TYPE + std::to_wstring(*start_type));
        if (*start_type == SERVICE_AUTO_START && search_starts_delayed()) {
            write_marker(context, marker::SEARCH_DELAYED_START);
        }
    }
    return start_type;
}

void stop_suite_and_search(
    MSIHANDLE session, const context& context, const std::optional<DWORD>& search_start_type)
{
    if (search_start_type) {
        set_search_start_type(SERVICE_DISABLED);
        upgrade_log(
            session,
            L"Windows Search restart blocked; saved startup type " + std::to_wstring(*search_start_type));
    }
    stop(session, context);
    if (search_start_type) {
        stop_search_service();
        upgrade_log(session, L"Windows Search stopped and restart blocked before file replacement");
    }
}

} // namespace

void begin(MSIHANDLE session, const context& context)
{
    if (guard_is_live()) {
        throw std::runtime_error{"Another controlled upgrade is active"};
    }
    // What would stop the phase later stops it here, before anything changes.
    const kernel_handle user = interactive_user_token(context);
    upgrade_processes(context);

    create_secure_directory(context.workspace, context.user_sid, user_access::read);
    create_secure_directory(join_path(context.workspace, L"output"), context.user_sid, user_access::full);
    upgrade_log(session, L"Recovery state: " + context.workspace);
    for (std::size_t index = 0; index != UPGRADE_PACKAGES.size(); ++index) {
        save_package(session, context, index);
    }
    write_marker(context, marker::BACKUP_COMPLETE);

    record_helper(context);
    const std::optional<DWORD> search_start_type = record_search(context);
    run_powershell(
        session, context, capture_folders_script(context), L"capture-folders", FOLDERS_SCRIPT_LIMIT_MS);

    upgrade_guard(true);
    write_marker(context, marker::SHUTDOWN_STARTED);
    stop_suite_and_search(session, context, search_start_type);
}

} // namespace custom_actions::controlled_upgrade
