#pragma once

#include "package/toy_suite/registry_state.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The stand-in's state and settings in the registry; toy_scheduler.cpp lists them. A function that is not
// noexcept throws std::runtime_error if the registry refuses.
namespace toy_scheduler {

using toy_suite::registry_state;

inline constexpr const wchar_t* STATE = LR"(Software\QuorbelStandIn\TaskScheduler)";

// A task's properties by their names, all as text.
using properties = std::map<std::wstring, std::wstring>;

// The setting of this name: "State" or "Result".
std::optional<DWORD> setting(const wchar_t* name);

// True if the setting "Fail" names this call.
bool must_fail(std::wstring_view call);

// Appends a line to the value of this name: "Calls" or "Unexpected".
void note(const wchar_t* name, std::wstring_view line);

void note_object_count(DWORD count) noexcept;

// The names of the registered tasks, sorted.
std::vector<std::wstring> task_names();

// The properties of a registered task; nothing if there is no such task.
std::optional<properties> load_task(const std::wstring& name);

void save_task(const std::wstring& name, const properties& task);

// True if there was one.
bool delete_task(const std::wstring& name);

} // namespace toy_scheduler
