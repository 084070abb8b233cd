#include "custom_actions/common/registry_key.h"

#include <array>
#include <cstring>
#include <utility>

namespace custom_actions {
namespace {

// In characters, with the terminating zero: no name is longer.
constexpr DWORD LONGEST_KEY_NAME = 256;
constexpr DWORD LONGEST_VALUE_NAME = 16384;

} // namespace

REGSAM native_registry_view() noexcept
{
    BOOL under_wow64 = FALSE;
    return IsWow64Process(GetCurrentProcess(), &under_wow64) && under_wow64 ? KEY_WOW64_64KEY : 0;
}

std::optional<std::wstring> registry_value::wide_text() const
{
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
    const bool well_formed = data.size() % sizeof(wchar_t) == 0 && (text.empty() || text.back() == L'\0');
    if ((type != REG_SZ && type != REG_EXPAND_SZ) || !well_formed) {
        return std::nullopt;
    }
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

LSTATUS registry_key::open(HKEY parent, const std::string& path, REGSAM access) noexcept
{
    return RegOpenKeyExA(parent, path.c_str(), 0, access, handle_.put());
}

LSTATUS registry_key::open(HKEY parent, const std::wstring& path, REGSAM access) noexcept
{
    return RegOpenKeyExW(parent, path.c_str(), 0, access, handle_.put());
}

LSTATUS registry_key::create(HKEY parent, const std::string& path, REGSAM access) noexcept
{
    return RegCreateKeyExA(
        parent, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, handle_.put(), nullptr);
}

LSTATUS registry_key::create(HKEY parent, const std::wstring& path, REGSAM access) noexcept
{
    return RegCreateKeyExW(
        parent, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, handle_.put(), nullptr);
}

namespace {

// `query` is RegQueryValueExA or RegQueryValueExW. `size` has the size of the buffer and gets the value's.
template <class Query, class Char>
LSTATUS query_value(Query* query, HKEY key, const Char* name, DWORD& size, registry_value& value)
{
    registry_value found{.type = REG_NONE, .data = std::string(size, '\0')};
    const LSTATUS status =
        query(key, name, nullptr, &found.type, reinterpret_cast<BYTE*>(found.data.data()), &size);
    if (status == ERROR_SUCCESS) {
        found.data.resize(size);
        value = std::move(found);
    }
    return status;
}

template <class Query, class Char>
LSTATUS query_whole_value(Query* query, HKEY key, const Char* name, DWORD size, registry_value& value)
{
    const LSTATUS status = query_value(query, key, name, size, value);
    return status == ERROR_MORE_DATA ? query_value(query, key, name, size, value) : status;
}

// `enumerate` is RegEnumKeyExA or RegEnumKeyExW.
template <class Enumerate, class Char>
LSTATUS subkey_name(Enumerate* enumerate, HKEY key, DWORD index, std::basic_string<Char>& name)
{
    std::array<Char, LONGEST_KEY_NAME> buffer{};
    auto length = static_cast<DWORD>(buffer.size());
    const LSTATUS status = enumerate(key, index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_SUCCESS) {
        name.assign(buffer.data(), length);
    }
    return status;
}

// `query` is RegQueryInfoKeyA or RegQueryInfoKeyW. How many subkeys and, unless null, values the key has.
template <class Query>
LSTATUS query_content(Query* query, HKEY key, DWORD& subkeys, DWORD* values) noexcept
{
    return query(
        key,
        nullptr,
        nullptr,
        nullptr,
        &subkeys,
        nullptr,
        nullptr,
        values,
        nullptr,
        nullptr,
        nullptr,
        nullptr);
}

} // namespace

LSTATUS registry_key::read(const char* name, DWORD limit, registry_value& value) const
{
    return query_value(RegQueryValueExA, handle_.get(), name, limit, value);
}

LSTATUS registry_key::read(const wchar_t* name, DWORD limit, registry_value& value) const
{
    return query_value(RegQueryValueExW, handle_.get(), name, limit, value);
}

LSTATUS registry_key::read_whole(const char* name, DWORD expected, registry_value& value) const
{
    return query_whole_value(RegQueryValueExA, handle_.get(), name, expected, value);
}

std::wstring registry_key::whole_text(const wchar_t* name, DWORD expected) const
{
    registry_value value;
    query_whole_value(RegQueryValueExW, handle_.get(), name, expected, value);
    return value.wide_text().value_or(L"");
}

LSTATUS registry_key::find_value(const char* name) const noexcept
{
    return RegQueryValueExA(handle_.get(), name, nullptr, nullptr, nullptr, nullptr);
}

LSTATUS registry_key::write_text(const char* name, const std::string& text) const noexcept
{
    return write_raw_text(name, {text.c_str(), text.size() + 1});
}

LSTATUS registry_key::write_text(const wchar_t* name, const std::wstring& text) const noexcept
{
    return RegSetValueExW(
        handle_.get(),
        name,
        0,
        REG_SZ,
        reinterpret_cast<const BYTE*>(text.c_str()),
        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
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

LSTATUS registry_key::delete_value(const wchar_t* name) const noexcept
{
    return RegDeleteValueW(handle_.get(), name);
}

LSTATUS registry_key::delete_subkey(const std::string& name) const noexcept
{
    return RegDeleteKeyA(handle_.get(), name.c_str());
}

LSTATUS registry_key::delete_subkey(const wchar_t* name) const noexcept
{
    return RegDeleteKeyExW(handle_.get(), name, 0, 0);
}

LSTATUS registry_key::enumerate_subkey(DWORD index, std::string& name) const
{
    return subkey_name(RegEnumKeyExA, handle_.get(), index, name);
}

LSTATUS registry_key::enumerate_subkey(DWORD index, std::wstring& name) const
{
    return subkey_name(RegEnumKeyExW, handle_.get(), index, name);
}

LSTATUS registry_key::enumerate_value_name(DWORD index, std::wstring& name) const
{
    std::wstring buffer(LONGEST_VALUE_NAME, L'\0');
    auto length = static_cast<DWORD>(buffer.size());
    const LSTATUS status =
        RegEnumValueW(handle_.get(), index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_SUCCESS) {
        name.assign(buffer, 0, length);
    }
    return status;
}

bool registry_key::has_no_subkeys() const noexcept
{
    DWORD subkeys = 0;
    return query_content(RegQueryInfoKeyW, handle_.get(), subkeys, nullptr) == ERROR_SUCCESS && subkeys == 0;
}

bool registry_key::is_empty() const noexcept
{
    DWORD subkeys = 0;
    DWORD values = 0;
    return query_content(RegQueryInfoKeyA, handle_.get(), subkeys, &values) == ERROR_SUCCESS &&
           subkeys == 0 && values == 0;
}

} // namespace custom_actions
