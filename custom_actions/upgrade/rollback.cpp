#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/best_effort.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/rollback_plan.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"

#include <stdexcept>
#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

void restore_package(MSIHANDLE session, const context& context, std::size_t index)
{
    const std::wstring digit = std::to_wstring(index);
    const std::wstring saved = saved_package(context, index);
    const std::wstring script = has_marker(context, marker::REGISTERED + digit)
                                    ? registration_script(saved, context.product_directory)
                                    : removal_script(saved);
    run_powershell(session, context, script, L"rollback-" + digit, PACKAGE_SCRIPT_LIMIT_MS);
}

// Only the messages of the packages have a separator behind them.
void restore_packages(MSIHANDLE session, const context& context, std::string& failures)
{
    attempt(failures, [&] {
        upgrade_guard(true);
        stop(session, context);
    });
    for (std::size_t index = 0; index != UPGRADE_PACKAGES.size(); ++index) {
        attempt(failures, [&] { restore_package(session, context, index); }, "", "; ");
    }
}

} // namespace

void rollback(MSIHANDLE session, const context& context)
{
    const rollback_plan plan = plan_rollback([&](const wchar_t* name) { return has_marker(context, name); });
    if (plan.releases_key) {
        upgrade_guard(false);
    }
    std::string failures;
    if (plan.restores_packages) {
        restore_packages(session, context, failures);
    }
    if (plan.restores_runtime) {
        attempt(failures, [&] { restore_runtime(session, context); });
    }
    if (!failures.empty()) {
        throw std::runtime_error{"Rollback recovery incomplete: " + failures};
    }
    if (plan.restores_runtime) {
        write_marker(context, marker::ROLLBACK_COMPLETE);
    }
}

} // namespace custom_actions::controlled_upgrade
