#pragma once

#include "custom_actions/upgrade/context.h"

#include <windows.h>
#include <msi.h>

// The phases of an upgrade, each an action of its own, and the rollback. Nothing passes between them but the
// workspace's markers and the maintenance key. Each throws a standard exception if it fails, and leaves what
// it has done by then: undoing is the rollback's work.
namespace custom_actions::controlled_upgrade {

// Saves the packages and the state of what runs, takes the maintenance key, and stops the suite, its shell
// hosts and Windows Search. Until the key is taken nothing but the workspace changes. Throws
// std::runtime_error "Another controlled upgrade is active" or "Cannot capture original package
// registration", windows_error "Cannot back up installed package before upgrade", and what the steps throw.
void begin(MSIHANDLE session, const context& context);

// Registers the new packages for the user, one after the other. Throws std::runtime_error "Upgrade backup is
// missing" if `begin` did not complete its backup, and what the steps throw.
void install_packages(MSIHANDLE session, const context& context);

// Restores what ran, commits the upgrade, and opens the main program's What's new page. If something cannot
// be restored, closes it all again, so that files can be replaced. Throws std::runtime_error "Package
// verification was not completed", or one with every failure's message.
void finish(MSIHANDLE session, const context& context);

// Undoes as much of an upgrade as the markers record, whatever fails on the way. Throws std::runtime_error
// "Rollback recovery incomplete: " with every failure's message, and windows_error if the markers that decide
// cannot be read.
void rollback(MSIHANDLE session, const context& context);

// Closes what was started meanwhile, releases the maintenance key, and restores Windows Search, Explorer, the
// folder windows, the helper service and the tray, each whatever became of the others. Throws one
// std::runtime_error with every failure's message, each followed by "; ".
void restore_runtime(MSIHANDLE session, const context& context);

} // namespace custom_actions::controlled_upgrade
