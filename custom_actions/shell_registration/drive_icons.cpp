#include "custom_actions/shell_registration/drive_icons.h"

#include "custom_actions/common/registry_key.h"

#include <cstring>
#include <optional>
#include <string>

namespace custom_actions {
namespace {

constexpr DWORD TEXT_SIZE = 8192; // bytes
constexpr const wchar_t* APPLIED_VALUE = L"sorvane_drive_icon_applied";
constexpr const wchar_t* HAD_ORIGINAL_VALUE = L"sorvane_drive_icon_had_original";
constexpr const wchar_t* ORIGINAL_VALUE = L"sorvane_drive_icon_original";

std::optional<std::wstring> read_text(const wide_registry_key& key, const wchar_t* name)
{
    registry_value value;
    return key.read(name, TEXT_SIZE, value) == ERROR_SUCCESS ? value.wide_text() : std::nullopt;
}

bool had_original_icon(const wide_registry_key& key)
{
    registry_value value;
    DWORD had_original = 0;
    if (key.read(HAD_ORIGINAL_VALUE, sizeof had_original, value) == ERROR_SUCCESS &&
        value.data.size() == sizeof had_original) {
        std::memcpy(&had_original, value.data.data(), sizeof had_original);
    }
    return had_original == 1;
}

bool restore_original_icon(const wide_registry_key& key)
{
    const auto original = read_text(key, ORIGINAL_VALUE);
    return original && key.write_text(L"", *original) == ERROR_SUCCESS;
}

bool delete_applied_icon(const wide_registry_key& key)
{
    const LSTATUS status = key.delete_value(L"");
    return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
}

bool restore_drive_icon(wchar_t letter)
{
    wide_registry_key key;
    const LSTATUS opened = key.open(
        HKEY_CURRENT_USER,
        std::wstring{LR"(Software\Classes\Applications\Explorer.exe\Drives\)"} + letter + LR"(\DefaultIcon)",
        KEY_READ_WRITE | native_registry_view());
    if (opened != ERROR_SUCCESS) {
        return opened == ERROR_FILE_NOT_FOUND;
    }
    const auto applied = read_text(key, APPLIED_VALUE);
    if (!applied || applied != read_text(key, L"")) {
        return true; // somebody has changed the icon since
    }
    if (!(had_original_icon(key) ? restore_original_icon(key) : delete_applied_icon(key))) {
        return false;
    }
    for (const wchar_t* name : {HAD_ORIGINAL_VALUE, ORIGINAL_VALUE, APPLIED_VALUE}) {
        key.delete_value(name);
    }
    return true;
}

} // namespace

bool restore_drive_icons()
{
    bool all_restored = true;
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
        all_restored = restore_drive_icon(letter) && all_restored;
    }
    return all_restored;
}

} // namespace custom_actions
