#pragma once

#include <windows.h>
#include <msi.h>

#include <string>
#include <string_view>
#include <vector>

// The suite's main programs are asked to close before the installer looks for files in use, and a scheduled
// task that is there before the first of them closes brings them back.
namespace custom_actions::early_upgrade {

// Registers the recovery task, leaves its name in "QblEarlyRecoveryTask", asks the programs to close and
// gives them 2 seconds; none is ended. The programs are those of the user and the session in
// "begin_controlled_upgrade". Where it throws, none was asked to close. Throws windows_error with the message
// of the step that failed, std::runtime_error "Cannot resolve recovery executable", and what read_property,
// load_context, find_processes_by_image and task_scheduler throw.
void prepare(MSIHANDLE session);

// Runs the task that "QblEarlyRecoveryTask" names, waits up to 15 seconds for it, and removes it once it has
// brought the programs back; where it throws, the task stays. Does nothing where the property is empty.
// Throws std::runtime_error "Invalid early recovery identity", "Early recovery launcher timed out; task
// retained" or "Early recovery launcher failed; task retained", windows_error "Cannot launch early recovery
// task", "Cannot refresh recovery status", "Cannot inspect recovery status" or "Cannot inspect recovery
// result", and what read_property and task_scheduler throw.
void recover(MSIHANDLE session);

// The script that starts each of these programs that is there and does not run yet.
std::wstring recovery_script(const std::vector<std::wstring>& programs);

// Whether `name` is one that a recovery task can have: "QBL-EarlyRecovery-" and a GUID.
bool is_recovery_task(std::wstring_view name) noexcept;

} // namespace custom_actions::early_upgrade
