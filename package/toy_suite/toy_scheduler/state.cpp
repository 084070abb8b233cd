#include "package/toy_suite/toy_scheduler/state.h"

#include <algorithm>

namespace toy_scheduler {
namespace {

// The key of all tasks, or of one.
registry_state tasks(const std::wstring& name = L"")
{
    return registry_state{STATE + (LR"(\Tasks\)" + name)};
}

} // namespace

std::optional<DWORD> setting(const wchar_t* name)
{
    return registry_state{STATE}.number(name);
}

bool must_fail(std::wstring_view call)
{
    return registry_state{STATE}.text(L"Fail") == call;
}

void note(const wchar_t* name, std::wstring_view line)
{
    const registry_state state{STATE};
    state.write(name, state.text(name).value_or(L"").append(line).append(L"\n"));
}

void note_object_count(DWORD count) noexcept
{
    RegSetKeyValueW(HKEY_CURRENT_USER, STATE, L"Objects", REG_DWORD, &count, sizeof count);
}

std::vector<std::wstring> task_names()
{
    return tasks().subkeys();
}

std::optional<properties> load_task(const std::wstring& name)
{
    return std::ranges::count(task_names(), name) != 0 ? std::optional{tasks(name).texts()} : std::nullopt;
}

void save_task(const std::wstring& name, const properties& task)
{
    const registry_state key = tasks(name);
    for (const auto& [property, value] : task) {
        key.write(property.c_str(), value);
    }
}

bool delete_task(const std::wstring& name)
{
    return !name.empty() && tasks().remove_subkey(name);
}

} // namespace toy_scheduler
