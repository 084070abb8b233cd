#pragma once

#include "custom_actions/upgrade/workspace.h"

namespace custom_actions::controlled_upgrade {

// What a rollback has to undo.
struct rollback_plan {
    bool releases_key;      // the maintenance key alone: nothing was stopped
    bool restores_packages; // and closes the suite first
    bool restores_runtime;

    bool operator==(const rollback_plan&) const = default;
};

// Decides from the markers: `has` returns whether there is one of this name. What it throws passes.
template <class HasMarker>
rollback_plan plan_rollback(HasMarker has)
{
    if (!has(marker::SHUTDOWN_STARTED)) {
        // The key is taken between these two markers.
        return {
            .releases_key = has(marker::BACKUP_COMPLETE),
            .restores_packages = false,
            .restores_runtime = false};
    }
    return {
        .releases_key = false, .restores_packages = has(marker::PACKAGES_TOUCHED), .restores_runtime = true};
}

} // namespace custom_actions::controlled_upgrade
