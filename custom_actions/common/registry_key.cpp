#include "custom_actions/common/registry_key.h"

#include <array>

namespace custom_actions {

REGSAM native_registry_view() noexcept
{
    BOOL under_wow64 = FALSE;
    return IsWow64Process(GetCurrentProcess(), &under_wow64) && under_wow64 ? KEY_WOW64_64KEY : 0;
}

LSTATUS registry_key::open(HKEY parent, const std::string& path, REGSAM access) noexcept
{
    return RegOpenKeyExA(parent, path.c_str(), 0, access, handle_.put());
}

LSTATUS registry_key::create(HKEY parent, const std::string& path, REGSAM access) noexcept
{
    return RegCreateKeyExA(
        parent, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, handle_.put(), nullptr);
}

LSTATUS registry_key::read(const char* name, DWORD limit, registry_value& value) const
{
    registry_value found{.type = REG_NONE, .data = std::string(limit, '\0')};
    DWORD size = limit;
    const LSTATUS status = RegQueryValueExA(
        handle_.get(), name, nullptr, &found.type, reinterpret_cast<BYTE*>(found.data.data()), &size);
    if (status == ERROR_SUCCESS) {
        found.data.resize(size);
        value = std::move(found);
    }
    return status;
}

bool registry_key::has_value(const char* name) const noexcept
{
    return RegQueryValueExA(handle_.get(), name, nullptr, nullptr, nullptr, nullptr) != ERROR_FILE_NOT_FOUND;
}

LSTATUS registry_key::write_text(const char* name, const std::string& text) const noexcept
{
    return write_raw_text(name, {text.c_str(), text.size() + 1});
}

LSTATUS registry_key::write_raw_text(const char* name, std::string_view bytes) const noexcept
{
    return RegSetValueExA(
        handle_.get(),
        name,
        0,
        REG_SZ,
        reinterpret_cast<const BYTE*>(bytes.data()),
        static_cast<DWORD>(bytes.size()));
}

LSTATUS registry_key::delete_value(const char* name) const noexcept
{
    return RegDeleteValueA(handle_.get(), name);
}

LSTATUS registry_key::delete_subkey(const std::string& name) const noexcept
{
    return RegDeleteKeyA(handle_.get(), name.c_str());
}

LSTATUS registry_key::enumerate_subkey(DWORD index, std::string& name) const
{
    std::array<char, 256> buffer{};
    auto length = static_cast<DWORD>(buffer.size());
    const LSTATUS status =
        RegEnumKeyExA(handle_.get(), index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_SUCCESS) {
        name.assign(buffer.data(), length);
    }
    return status;
}

bool registry_key::is_empty() const noexcept
{
    DWORD subkeys = 0;
    DWORD values = 0;
    const LSTATUS status = RegQueryInfoKeyA(
        handle_.get(),
        nullptr,
        nullptr,
        nullptr,
        &subkeys,
        nullptr,
        nullptr,
        &values,
        nullptr,
        nullptr,
        nullptr,
        nullptr);
    return status == ERROR_SUCCESS && subkeys == 0 && values == 0;
}

} // namespace custom_actions
