#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>

// What the stand-in keeps and is told, in the registry; toy_scheduler.cpp lists it.
namespace toy_scheduler {

// A task's properties by their names, all as text.
using properties = std::map<std::wstring, std::wstring>;

// What the stand-in is told under this name, if anything.
std::optional<DWORD> told(const wchar_t* name) noexcept;

// Whether this call is told to fail, and with what.
std::optional<HRESULT> told_failure(std::wstring_view call);

// Adds a line to one of the texts that the stand-in keeps.
void note(const wchar_t* name, std::wstring_view line);

void note_object_count(DWORD count) noexcept;

// The properties of a registered task that it takes to run it; nothing where there is none of this name.
std::optional<properties> load_task(const std::wstring& name);

// Throws std::runtime_error where the registry does not take it.
void save_task(const std::wstring& name, const properties& task);

// Whether there was one.
bool delete_task(const std::wstring& name);

} // namespace toy_scheduler
