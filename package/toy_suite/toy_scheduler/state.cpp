#include "package/toy_suite/toy_scheduler/state.h"

#include <stdexcept>

namespace toy_scheduler {
namespace {

constexpr const wchar_t* STATE = L"Software\\QuorbelStandIn\\TaskScheduler";

std::wstring task_key(const std::wstring& name)
{
    return std::wstring{STATE} + L"\\Tasks\\" + name;
}

std::optional<std::wstring> read_text(const std::wstring& key, const wchar_t* name)
{
    DWORD size = 0;
    if (RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name, RRF_RT_REG_SZ, nullptr, nullptr, &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::wstring text(size / sizeof(wchar_t), L'\0');
    if (RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text.data(), &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    return text.c_str();
}

void write_text(const std::wstring& key, const wchar_t* name, const std::wstring& text)
{
    if (RegSetKeyValueW(
            HKEY_CURRENT_USER,
            key.c_str(),
            name,
            REG_SZ,
            text.c_str(),
            static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) != ERROR_SUCCESS) {
        throw std::runtime_error{"the stand-in cannot keep its state"};
    }
}

} // namespace

std::optional<DWORD> told(const wchar_t* name) noexcept
{
    DWORD number = 0;
    DWORD size = sizeof number;
    return RegGetValueW(HKEY_CURRENT_USER, STATE, name, RRF_RT_REG_DWORD, nullptr, &number, &size) ==
                   ERROR_SUCCESS
               ? std::optional{number}
               : std::nullopt;
}

std::optional<HRESULT> told_failure(std::wstring_view call)
{
    return read_text(STATE, L"Fail") == call
               ? std::optional{static_cast<HRESULT>(
                     told(L"FailWith").value_or(static_cast<DWORD>(E_ACCESSDENIED)))}
               : std::nullopt;
}

void note(const wchar_t* name, std::wstring_view line)
{
    write_text(STATE, name, read_text(STATE, name).value_or(L"").append(line).append(L"\n"));
}

void note_object_count(DWORD count) noexcept
{
    RegSetKeyValueW(HKEY_CURRENT_USER, STATE, L"Objects", REG_DWORD, &count, sizeof count);
}

std::optional<properties> load_task(const std::wstring& name)
{
    const std::wstring key = task_key(name);
    std::optional<std::wstring> path = read_text(key, L"Path");
    return path ? std::optional{properties{
                      {L"Path", *path}, {L"Arguments", read_text(key, L"Arguments").value_or(L"")}}}
                : std::nullopt;
}

void save_task(const std::wstring& name, const properties& task)
{
    for (const auto& [property, value] : task) {
        write_text(task_key(name), property.c_str(), value);
    }
}

bool delete_task(const std::wstring& name)
{
    return !name.empty() && RegDeleteTreeW(HKEY_CURRENT_USER, task_key(name).c_str()) == ERROR_SUCCESS;
}

} // namespace toy_scheduler
