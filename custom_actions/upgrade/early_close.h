#pragma once

#include <windows.h>
#include <msi.h>

#include <string_view>

// The early close: the suite's main programs are asked to close before the installer looks for files in use.
// A scheduled task, registered before the first of them closes, starts them again.
namespace custom_actions::early_upgrade {

// Registers the recovery task, leaves its name in "QblEarlyRecoveryTask", asks the programs to close, and
// gives them 2 seconds; none is terminated. The programs are those of the user and the session in
// "begin_controlled_upgrade". If it throws, none was asked to close. Throws windows_error "Cannot identify
// early-close process" or "Cannot identify early-close user", and what read_property, load_context,
// find_processes_by_image, token_user_sid and recovery_scheduler throw.
void prepare(MSIHANDLE session);

// Whether the recovery task starts the program with this path again. It does, unless the program is the
// auto-tagging service, in any case.
bool is_started_again(std::wstring_view path) noexcept;

// Runs the task that "QblEarlyRecoveryTask" names, and removes it once it has started the programs again; if
// it throws, the task stays. Does nothing if the property is empty. Throws std::runtime_error "Invalid early
// recovery identity", and what read_property and recovery_scheduler throw.
void recover(MSIHANDLE session);

} // namespace custom_actions::early_upgrade
