#pragma once

#include "package/toy_suite/registry_state.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the stand-in keeps and is told, in the registry; toy_scheduler.cpp lists it. A function that is not
// noexcept throws std::runtime_error where the registry does not do its part.
namespace toy_scheduler {

using toy_suite::registry_state;

inline constexpr const wchar_t* STATE = LR"(Software\QuorbelStandIn\TaskScheduler)";

// A task's properties by their names, all as text.
using properties = std::map<std::wstring, std::wstring>;

// What the stand-in is told under this name, if anything.
std::optional<DWORD> told(const wchar_t* name);

bool told_to_fail(std::wstring_view call);

// Adds a line to one of the texts that the stand-in keeps.
void note(const wchar_t* name, std::wstring_view line);

void note_object_count(DWORD count) noexcept;

// The registered tasks, in the order of their names.
std::vector<std::wstring> task_names();

// The properties of a registered task; nothing where there is none of this name.
std::optional<properties> load_task(const std::wstring& name);

void save_task(const std::wstring& name, const properties& task);

// Whether there was one.
bool delete_task(const std::wstring& name);

} // namespace toy_scheduler
