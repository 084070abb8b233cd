#include "package/toy_suite/registry_state.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace toy_suite {
namespace {

void require(LSTATUS status, const char* what)
{
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error{what};
    }
}

// A value of the type that `flags` allow (RRF_RT_...), with its terminating zeros; nothing if there is none.
std::optional<std::wstring> read(HKEY key, const wchar_t* name, DWORD flags)
{
    DWORD size = 0;
    if (RegGetValueW(key, nullptr, name, flags, nullptr, nullptr, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::wstring units(size / sizeof(wchar_t), L'\0');
    require(RegGetValueW(key, nullptr, name, flags, nullptr, units.data(), &size), "a value cannot be read");
    return units;
}

void write_value(HKEY key, const wchar_t* name, DWORD type, const void* data, std::size_t size)
{
    require(
        RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)),
        "a value cannot be written");
}

} // namespace

registry_state::registry_state(const std::wstring& path, HKEY root)
{
    require(
        RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &key_, nullptr),
        "the stand-in's key cannot be opened");
}

registry_state::~registry_state()
{
    RegCloseKey(key_);
}

std::optional<std::wstring> registry_state::text(const wchar_t* name) const
{
    const auto units = read(key_, name, RRF_RT_REG_SZ);
    return units ? std::optional<std::wstring>{units->c_str()} : std::nullopt;
}

std::optional<DWORD> registry_state::number(const wchar_t* name) const
{
    DWORD value = 0;
    DWORD size = sizeof value;
    const LSTATUS status = RegGetValueW(key_, nullptr, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
    return status == ERROR_SUCCESS ? std::optional{value} : std::nullopt;
}

std::vector<std::wstring> registry_state::list(const wchar_t* name) const
{
    const std::wstring units = read(key_, name, RRF_RT_REG_MULTI_SZ).value_or(L"");
    std::vector<std::wstring> texts;
    for (const wchar_t* text = units.c_str(); *text != L'\0'; text += texts.back().size() + 1) {
        texts.emplace_back(text);
    }
    return texts;
}

std::vector<std::wstring> registry_state::subkeys() const
{
    std::vector<std::wstring> names;
    std::array<wchar_t, 256> name{};
    while (
        RegEnumKeyW(key_, static_cast<DWORD>(names.size()), name.data(), static_cast<DWORD>(name.size())) ==
        ERROR_SUCCESS) {
        names.emplace_back(name.data());
    }
    return names;
}

std::map<std::wstring, std::wstring> registry_state::texts() const
{
    std::map<std::wstring, std::wstring> found;
    std::array<wchar_t, 256> name{};
    auto size = static_cast<DWORD>(name.size());
    for (DWORD index = 0;
         RegEnumValueW(key_, index, name.data(), &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index) {
        if (auto value = text(name.data())) {
            found.emplace(name.data(), std::move(*value));
        }
        size = static_cast<DWORD>(name.size());
    }
    return found;
}

void registry_state::write(const wchar_t* name, const std::wstring& text) const
{
    write_value(key_, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void registry_state::write(const wchar_t* name, DWORD number) const
{
    write_value(key_, name, REG_DWORD, &number, sizeof number);
}

void registry_state::write(const wchar_t* name, const std::vector<std::wstring>& texts) const
{
    std::wstring joined;
    for (const std::wstring& text : texts) {
        joined.append(text).push_back(L'\0');
    }
    write_value(key_, name, REG_MULTI_SZ, joined.c_str(), (joined.size() + 1) * sizeof(wchar_t));
}

bool registry_state::remove_subkey(const std::wstring& name) const
{
    const LSTATUS status = RegDeleteTreeW(key_, name.c_str());
    if (status != ERROR_FILE_NOT_FOUND) {
        require(status, "a key cannot be removed");
    }
    return status == ERROR_SUCCESS;
}

} // namespace toy_suite
