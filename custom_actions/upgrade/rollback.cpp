#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/best_effort.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
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

// Returns the messages of what failed; only the packages' have a separator behind them.
std::string restore_packages(MSIHANDLE session, const context& context)
{
    std::string failures = failure_of([&] {
                               upgrade_guard(true);
                               stop(session, context);
                           }).value_or("");
    for (std::size_t index = 0; index != UPGRADE_PACKAGES.size(); ++index) {
        if (const auto message = failure_of([&] { restore_package(session, context, index); })) {
            failures.append(*message).append("; ");
        }
    }
    return failures;
}

} // namespace

void rollback(MSIHANDLE session, const context& context)
{
    if (!has_marker(context, marker::SHUTDOWN_STARTED)) {
        // Between the two markers the key may have been taken.
        if (has_marker(context, marker::BACKUP_COMPLETE)) {
            upgrade_guard(false);
        }
        return;
    }
    std::string failures;
    if (has_marker(context, marker::PACKAGES_TOUCHED)) {
        failures = restore_packages(session, context);
    }
    failures += failure_of([&] { restore_runtime(session, context); }).value_or("");
    if (!failures.empty()) {
        throw std::runtime_error{"Rollback recovery incomplete: " + failures};
    }
    write_marker(context, marker::ROLLBACK_COMPLETE);
}

} // namespace custom_actions::controlled_upgrade
