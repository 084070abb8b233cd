#include "support/registry_sandbox.h"

#include "support/ascii.h"
#include "support/require.h"

#include <algorithm>
#include <array>

namespace test_support {
namespace {

// A process may have a sandbox for each root: the root's low bits make their names differ.
std::wstring scratch_name(HKEY root)
{
    return std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(reinterpret_cast<ULONG_PTR>(root) & 0xF);
}

std::string hexadecimal(std::string_view bytes)
{
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const char byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4U];
        text += digits[static_cast<unsigned char>(byte) & 0xFU];
    }
    return text;
}

std::string hexadecimal(std::wstring_view text)
{
    return hexadecimal({reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)});
}

// `name` itself if it is ASCII, otherwise its bytes in hexadecimal.
std::string shown(std::wstring_view name)
{
    const bool ascii = std::ranges::all_of(name, [](wchar_t unit) { return unit < 0x80; });
    return ascii ? as_ascii(name) : hexadecimal(name);
}

void dump_below(HKEY key, const std::string& path, std::vector<std::string>& lines)
{
    lines.push_back(path);
    std::array<wchar_t, 16384> name{};
    std::vector<char> data(65536);
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(name.size());
        auto size = static_cast<DWORD>(data.size());
        DWORD type = 0;
        const LSTATUS status = RegEnumValueW(
            key, index, name.data(), &length, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
        if (status == ERROR_NO_MORE_ITEMS) {
            break;
        }
        require(status, "cannot list the values of a key");
        lines.push_back(
            path + ' ' + shown({name.data(), length}) + ' ' + std::to_string(type) + ' ' +
            hexadecimal(std::string_view{data.data(), size}));
    }
    for (DWORD index = 0;
         RegEnumKeyW(key, index, name.data(), static_cast<DWORD>(name.size())) == ERROR_SUCCESS;
         ++index) {
        custom_actions::registry_key_handle subkey;
        require(RegOpenKeyExW(key, name.data(), 0, KEY_READ, subkey.put()), "cannot open a subkey");
        dump_below(subkey.get(), path + shown(name.data()) + "\\", lines);
    }
}

} // namespace

registry_sandbox::registry_sandbox(HKEY root) : root_{root}, name_{scratch_name(root)}
{
    require(
        RegCreateKeyExW(
            HKEY_CURRENT_USER,
            L"Software\\QuorbelTests",
            0,
            nullptr,
            REG_OPTION_NON_VOLATILE,
            KEY_ALL_ACCESS,
            nullptr,
            parent_.put(),
            nullptr),
        "cannot create the tests' key");
    RegDeleteTreeW(parent_.get(), name_.c_str()); // a crashed process with this id may have left one
    require(
        RegCreateKeyExW(
            parent_.get(),
            name_.c_str(),
            0,
            nullptr,
            REG_OPTION_NON_VOLATILE,
            KEY_ALL_ACCESS,
            nullptr,
            scratch_.put(),
            nullptr),
        "cannot create the scratch key");
    require(RegOverridePredefKey(root_, scratch_.get()), "cannot redirect the predefined key");
}

registry_sandbox::~registry_sandbox()
{
    RegOverridePredefKey(root_, nullptr);
    RegDeleteTreeW(parent_.get(), name_.c_str());
}

std::string registry_text(std::wstring_view text)
{
    const std::wstring terminated{text};
    return {reinterpret_cast<const char*>(terminated.c_str()), (terminated.size() + 1) * sizeof(wchar_t)};
}

void plant_value(HKEY root, const std::wstring& path, const wchar_t* name, std::string_view bytes, DWORD type)
{
    custom_actions::registry_key_handle key;
    require(RegCreateKeyW(root, path.c_str(), key.put()), "cannot create a key");
    // Keeps a zero from following the bytes: the system would store it with a text that is not terminated.
    const std::string padded = std::string{bytes} + "\xFF\xFF";
    require(
        RegSetValueExW(
            key.get(),
            name,
            0,
            type,
            reinterpret_cast<const BYTE*>(padded.data()),
            static_cast<DWORD>(bytes.size())),
        "cannot write a value");
}

void plant_number(HKEY root, const std::wstring& path, const wchar_t* name, DWORD number)
{
    plant_value(root, path, name, {reinterpret_cast<const char*>(&number), sizeof number}, REG_DWORD);
}

std::optional<std::string> planted_value(HKEY root, const std::wstring& path, const wchar_t* name)
{
    custom_actions::registry_key_handle key;
    DWORD size = 0;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS ||
        RegQueryValueExW(key.get(), name, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::string bytes(size, '\0');
    require(
        RegQueryValueExW(key.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(bytes.data()), &size),
        "cannot read a value");
    return bytes;
}

DWORD planted_number(HKEY root, const std::wstring& path, const wchar_t* name) noexcept
{
    DWORD number = 0;
    DWORD size = sizeof number;
    RegGetValueW(root, path.c_str(), name, RRF_RT_REG_DWORD, nullptr, &number, &size);
    return number;
}

std::vector<std::string> dump_registry(HKEY key)
{
    std::vector<std::string> lines;
    dump_below(key, "\\", lines);
    std::ranges::sort(lines);
    return lines;
}

} // namespace test_support
