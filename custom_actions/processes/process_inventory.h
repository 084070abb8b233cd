#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

// Finds the suite's programs and the shell hosts that have its extensions loaded. Nothing is kept between
// calls: each takes a snapshot of its own.
namespace custom_actions {

// Ids in the order of the system's snapshot, each once.
using process_list = std::vector<DWORD>;

// Image names are compared without regard to case; module patterns as by matches_module_pattern.
using name_list = std::vector<std::wstring>;

// What a call of the system that fails leads to: an empty result (or as much as there is), or a
// windows_error.
enum class listing { lenient, strict };

// The suite's own programs, without its tray.
name_list our_process_images();

// The programs that load shell extensions.
name_list shell_host_images();

// The suite's shell extensions and hooks, the last two as patterns.
name_list our_shell_modules();

// Whether the whole of `name` fits `pattern`, in which "*" stands for any run of characters. The case of
// ASCII letters does not count.
bool matches_module_pattern(std::wstring_view name, std::wstring_view pattern) noexcept;

// The processes whose executable has one of these names. Strict: throws windows_error "Cannot snapshot
// processes", "Cannot enumerate processes" or "Process enumeration incomplete". Lenient: what could be listed
// until then.
process_list find_processes_by_image(const name_list& images, listing how);

// Whether a module that `process` has loaded fits one of the patterns. Strict: throws windows_error "Cannot
// inspect host PID <id>" (but a process that has gone has no modules), "Unstable modules for PID <id>",
// "Cannot read modules for PID <id>" or "Incomplete modules for PID <id>". Lenient: false instead.
bool process_has_module(DWORD process, const name_list& patterns, listing how);

// The processes with one of these images, other than the calling one, that have one of these modules loaded.
// Lenient.
process_list find_shell_hosts(const name_list& images, const name_list& patterns);

} // namespace custom_actions
