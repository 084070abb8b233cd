#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

// Finds the suite's programs and the shell hosts that have its extensions loaded. Nothing is kept between
// calls: each takes a snapshot of its own.
namespace custom_actions {

// Ids in the order of the system's snapshot, each once.
using process_list = std::vector<DWORD>;

// Image names, or patterns of module names.
using name_list = std::span<const std::wstring_view>;

// What a failing call of the system leads to: an empty result (or as much as there is), or a windows_error.
enum class listing { lenient, strict };

// The processes whose executable has one of these names, in any case. Strict: throws windows_error "Cannot
// snapshot processes", "Cannot enumerate processes" or "Process enumeration incomplete". Lenient: returns
// what could be listed until then.
process_list find_processes_by_image(name_list images, listing how);

// Whether a module that `process` has loaded fits one of the patterns. Strict: throws windows_error "Cannot
// inspect host PID <id>" (but a process that has gone has no modules), "Unstable modules for PID <id>",
// "Cannot read modules for PID <id>" or "Incomplete modules for PID <id>". Lenient: returns false instead.
bool process_has_module(DWORD process, name_list patterns, listing how);

// The processes with one of these images, other than the calling one, that have one of these modules loaded.
// Lenient.
process_list find_shell_hosts(name_list images, name_list patterns);

// False also if the process's session cannot be read.
bool runs_in_session(DWORD process, DWORD session) noexcept;

// Whether a process with one of these images runs in the session. Lenient.
bool image_runs_in_session(name_list images, DWORD session);

// The ids as log lines list them, each after a blank: " 12 345".
std::wstring process_ids_text(const process_list& processes);

// A message that names a process: "... PID 12".
std::string with_pid(const char* message, DWORD process);

} // namespace custom_actions
