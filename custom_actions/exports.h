#pragma once

#include <windows.h>
#include <msi.h>

// The entry points that Windows Installer calls, one for each custom action; custom_actions.def exports them.
// Each takes the handle of the installer session and returns the action's code; no standard exception gets
// out.
extern "C" {

// Compares the version being installed (property "ProductVersion") with the version on the machine (property
// "INSTALLED_APP_VERSION", or 0.1.16.0 if that is empty). Sets "IS_MINOR_UPGRADE" to "1" if major and minor
// number are equal, and clears it otherwise. Always returns ERROR_SUCCESS.
UINT __stdcall check_upgrade_type(MSIHANDLE session);

// Shows the notice that a restart is advisable after a removal. Always returns ERROR_SUCCESS.
UINT __stdcall notify_restart_recommended(MSIHANDLE session);

// Registers the suite's property handler and its detail lists for the whole machine. With a session it
// returns ERROR_SUCCESS even if a registration failed, which is posted as an error; without one (0), as a
// build script calls it, ERROR_INSTALL_FAILURE if and only if a registration failed. Returns
// ERROR_INSTALL_FAILURE also if memory ran out.
UINT __stdcall propertyhandler_update_registry(MSIHANDLE session);

// Undoes that registration. Returns ERROR_INSTALL_FAILURE, and posts an error, if the handlers cannot be
// opened or an extension's cannot be deleted.
UINT __stdcall propertyhandler_remove_registry(MSIHANDLE session);

// Makes the suite's icon handler the current user's for ".ini", ".ico" and the ProgIds that serve them.
// Returns ERROR_INSTALL_FAILURE, with a log line, if a key cannot be made.
UINT __stdcall iconhandler_add_defaults_to_registry(MSIHANDLE session);

// Removes the suite's icon and thumbnail handlers of the current user and restores the drive icons. Returns
// ERROR_INSTALL_FAILURE, and posts an error, if a drive icon cannot be restored.
UINT __stdcall iconhandler_remove_registry(MSIHANDLE session);

// Removes the current user's override of the "New" menu. Always returns ERROR_SUCCESS.
UINT __stdcall restore_built_in_new_context_menu(MSIHANDLE session);

// Logs whether Smart App Control is enforcing. Always returns ERROR_SUCCESS.
UINT __stdcall log_app_control_state(MSIHANDLE session);

// Closes, then terminates, the suite's programs and the shell hosts that have its extensions loaded. Leaves
// the record of Explorer's session in "restore_explorer" and "rollback_explorer". Returns
// ERROR_INSTALL_FAILURE, without a line, if that record cannot be made or left.
UINT __stdcall close_and_kill_our_processes(MSIHANDLE session);

// Starts Explorer again from the record in "CustomActionData", as that session's user. Returns
// ERROR_INSTALL_FAILURE, and posts the one error, if that fails.
UINT __stdcall restore_explorer(MSIHANDLE session);

// Records whether Windows Search runs: leaves "running" or "unchanged" in "stop_search", "rollback_search"
// and "restore_search". Returns ERROR_INSTALL_FAILURE, and posts the one error, if "RollbackDisabled" is set,
// if the service is neither running nor stopped, or if anything else fails.
UINT __stdcall capture_search_state(MSIHANDLE session);

// Stops Windows Search if "CustomActionData" is "running"; does nothing if it is "unchanged". Returns
// ERROR_INSTALL_FAILURE, and posts the one error, if it is anything else or the service does not stop.
UINT __stdcall stop_search(MSIHANDLE session);

// Starts Windows Search again, likewise.
UINT __stdcall restore_search(MSIHANDLE session);

// Registers the sparse package whose file "CustomActionData" names, for whoever runs the action, with the
// file's folder as the place of its files. Returns ERROR_INVALID_PARAMETER, with an error, if there is no
// such data or it has 260 characters or more, and ERROR_INSTALL_FAILURE if PowerShell's exit code is not 0.
UINT __stdcall msix_install_package(MSIHANDLE session);

// Removes every package with the name in "CustomActionData" that whoever runs the action has. Returns the
// same; ERROR_INVALID_PARAMETER also, without a line, if the name has a character that no package's name can
// have.
UINT __stdcall msix_uninstall_package(MSIHANDLE session);

// Prepares a controlled upgrade of the installed suite: pins "INSTALLFOLDER" to its folder and leaves the
// data of the four phases below in the properties with their names. Returns ERROR_INSTALL_FAILURE, with the
// line "Controlled upgrade: ..." and the error "Quorbel upgrade: ...", if the upgrade cannot run that way; so
// do the four.
UINT __stdcall prepare_controlled_upgrade(MSIHANDLE session);

// Saves the packages and the state of what runs, and stops the suite and Windows Search.
UINT __stdcall begin_controlled_upgrade(MSIHANDLE session);

// Registers the new packages for the user.
UINT __stdcall install_upgrade_packages(MSIHANDLE session);

// Restores what ran and commits the upgrade.
UINT __stdcall finish_controlled_upgrade(MSIHANDLE session);

// Undoes an upgrade that failed after it had begun.
UINT __stdcall rollback_controlled_upgrade(MSIHANDLE session);

// Registers the task that starts the suite's main programs again, leaves its name in "QblEarlyRecoveryTask",
// and asks the programs to close. Returns ERROR_INSTALL_FAILURE, with a line and no error, if the task cannot
// be registered; the programs then run on.
UINT __stdcall early_close_upgrade(MSIHANDLE session);

// Runs that task, waits for it and removes it. Returns ERROR_INSTALL_FAILURE, with a line and no error, if
// that fails; the task then stays.
UINT __stdcall recover_early_upgrade(MSIHANDLE session);

} // extern "C"
