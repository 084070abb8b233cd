#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"

#include <stdexcept>
#include <string>

namespace custom_actions::controlled_upgrade {

void install_packages(MSIHANDLE session, const context& context)
{
    if (!has_marker(context, marker::BACKUP_COMPLETE)) {
        throw std::runtime_error{"Upgrade backup is missing"};
    }
    upgrade_guard(true);
    stop(session, context);
    write_marker(context, marker::PACKAGES_TOUCHED);
    for (std::size_t index = 0; index != UPGRADE_PACKAGES.size(); ++index) {
        run_powershell(
            session,
            context,
            registration_script(installed_package(context, index), context.product_directory),
            L"install-" + std::to_wstring(index),
            PACKAGE_SCRIPT_LIMIT_MS);
    }
    write_marker(context, marker::PACKAGES_VERIFIED);
}

} // namespace custom_actions::controlled_upgrade
