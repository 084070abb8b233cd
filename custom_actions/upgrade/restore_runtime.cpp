#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/best_effort.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/workspace.h"

#include <optional>
#include <stdexcept>
#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

// The start type from before the upgrade; nothing where Windows Search was not installed.
std::optional<DWORD> saved_search_start_type(const context& context)
{
    for (const DWORD type :
         {DWORD{SERVICE_AUTO_START}, DWORD{SERVICE_DEMAND_START}, DWORD{SERVICE_DISABLED}}) {
        if (has_marker(context, marker::SEARCH_START_TYPE + std::to_wstring(type))) {
            return type;
        }
    }
    return std::nullopt;
}

void restore_search_startup(MSIHANDLE session, const context& context)
{
    const std::optional<DWORD> type = saved_search_start_type(context);
    if (!type) {
        return;
    }
    const service_handle service = open_search_service(SERVICE_CHANGE_CONFIG);
    set_search_start_type(service.get(), *type);
    if (*type == SERVICE_AUTO_START) {
        SERVICE_DELAYED_AUTO_START_INFO delayed{
            .fDelayedAutostart = has_marker(context, marker::SEARCH_DELAYED_START)};
        if (!ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed)) {
            throw_last_error("Cannot restore Windows Search delayed start");
        }
    }
    upgrade_log(session, L"Windows Search startup configuration restored: " + std::to_wstring(*type));
}

void restore_search_running(MSIHANDLE session, const context& context)
{
    if (has_marker(context, marker::SEARCH_RUNNING)) {
        start_search_service();
        upgrade_log(session, L"Windows Search restarted to its previous running state.");
    } else if (read_search_start_type()) {
        upgrade_log(session, L"Windows Search was not running before the upgrade; left stopped.");
    } else {
        upgrade_log(session, L"Windows Search is not installed on this system; nothing to restore.");
    }
}

void restore_desktop(MSIHANDLE session, const context& context)
{
    const bool with_helper = has_marker(context, marker::HELPER_RUNNING);
    run_powershell(
        session, context, restore_runtime_script(context, with_helper), L"restore-runtime", 30'000);
}

} // namespace

void restore_runtime(MSIHANDLE session, const context& context)
{
    std::string failures;
    const auto attempt = [&failures](auto step) {
        if (const auto message = failure_of(step)) {
            failures.append(*message).append("; ");
        }
    };
    attempt([&] { stop(session, context); });
    attempt([] { upgrade_guard(false); });
    attempt([&] { restore_search_startup(session, context); });
    attempt([&] { restore_search_running(session, context); });
    attempt([&] { restart_explorer_from_record(explorer_record(context.session_id, context.user_sid)); });
    attempt([&] { restore_desktop(session, context); });
    if (!failures.empty()) {
        throw std::runtime_error{failures};
    }
}

} // namespace custom_actions::controlled_upgrade
