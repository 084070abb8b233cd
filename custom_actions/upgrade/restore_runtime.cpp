#include "custom_actions/common/installer_session.h"
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

constexpr DWORD RUNTIME_SCRIPT_LIMIT_MS = 30'000;

// The start type from before the upgrade; nothing if Windows Search was not installed.
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
    if (const std::optional<DWORD> type = saved_search_start_type(context)) {
        const bool automatic = *type == SERVICE_AUTO_START;
        restore_search_start_type(*type, automatic && has_marker(context, marker::SEARCH_DELAYED_START));
        upgrade_log(session, L"Windows Search startup configuration restored: " + std::to_wstring(*type));
    }
}

void restore_search_running(MSIHANDLE session, const context& context)
{
    if (has_marker(context, marker::SEARCH_RUNNING)) {
        start_search_service();
        upgrade_log(session, L"Windows Search restarted to its previous running state.");
    } else if (search_is_installed()) {
        upgrade_log(session, L"Windows Search was not running before the upgrade; left stopped.");
    } else {
        upgrade_log(session, L"Windows Search is not installed on this system; nothing to restore.");
    }
}

void restore_desktop(MSIHANDLE session, const context& context)
{
    const bool with_helper = has_marker(context, marker::HELPER_RUNNING);
    run_powershell(
        session,
        context,
        restore_runtime_script(context, with_helper),
        L"restore-runtime",
        RUNTIME_SCRIPT_LIMIT_MS);
}

} // namespace

void restore_runtime(MSIHANDLE session, const context& context)
{
    std::string failures;
    const auto attempt_one = [&failures](auto step) { attempt(failures, step, "", "; "); };
    attempt_one([&] { stop(session, context); });
    attempt_one([] { upgrade_guard(false); });
    attempt_one([&] { restore_search_startup(session, context); });
    attempt_one([&] { restore_search_running(session, context); });
    attempt_one([&] { restart_explorer({.session = context.session_id, .user_sid = context.user_sid}); });
    attempt_one([&] { restore_desktop(session, context); });
    if (!failures.empty()) {
        throw std::runtime_error{failures};
    }
}

} // namespace custom_actions::controlled_upgrade
