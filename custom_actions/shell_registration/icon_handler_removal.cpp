#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/text.h"
#include "custom_actions/shell_registration/drive_icons.h"
#include "custom_actions/shell_registration/icon_handler.h"

#include <shlobj.h>

#include <string>
#include <vector>

namespace custom_actions {
namespace {

constexpr const wchar_t* CLASSES = LR"(Software\Classes)";
constexpr const wchar_t* FILE_ASSOCIATIONS = LR"(Software\Classes\SystemFileAssociations)";

std::wstring below(const std::wstring& path, const std::wstring& name)
{
    return path + L'\\' + name;
}

// Looks into one slot, and gives back the handler that the suite's replaced. Returns whether the slot is the
// suite's and there is nothing to give back, so that it must be deleted. The backup goes only once its
// content is back in its place.
bool restore_slot(const std::wstring& path)
{
    wide_registry_key key;
    if (key.open(HKEY_CURRENT_USER, path, KEY_READ_WRITE) != ERROR_SUCCESS ||
        !equal_ignoring_case(key.whole_text(L"", ICON_HANDLER_SIZE), ICON_HANDLER_CLSID)) {
        return false;
    }
    const std::wstring backup = key.whole_text(ICON_HANDLER_BACKUP_VALUE, ICON_HANDLER_SIZE);
    if (backup.empty()) {
        return true;
    }
    if (key.write_text(L"", backup) == ERROR_SUCCESS) {
        key.delete_value(ICON_HANDLER_BACKUP_VALUE);
    }
    return false;
}

// Deletes the slot of one type or ProgId, and "ShellEx" with it if that has no other subkeys.
void delete_slot(const std::wstring& owner, const std::wstring& slot)
{
    DWORD subkeys = 0;
    DWORD values = 0; // which do not count
    wide_registry_key key;
    if (key.open(HKEY_CURRENT_USER, owner + LR"(\ShellEx)", KEY_WRITE | KEY_QUERY_VALUE) == ERROR_SUCCESS &&
        key.delete_subkey(slot.c_str()) == ERROR_SUCCESS && key.count(subkeys, values) == ERROR_SUCCESS &&
        subkeys == 0 && key.open(HKEY_CURRENT_USER, owner, KEY_WRITE) == ERROR_SUCCESS) {
        key.delete_subkey(L"ShellEx");
    }
}

// Takes the suite's handler out of the slot of every key below HKEY_CURRENT_USER\`root`. The keys themselves
// stay, so that enumerating them by index is safe.
void sweep_handler_slot(const std::wstring& root, const std::wstring& slot)
{
    wide_registry_key key;
    if (key.open(HKEY_CURRENT_USER, root, KEY_READ) != ERROR_SUCCESS) {
        return;
    }
    std::wstring name;
    for (DWORD index = 0; key.enumerate_subkey(index, name) == ERROR_SUCCESS; ++index) {
        const std::wstring owner = below(root, name);
        if (restore_slot(below(owner + LR"(\ShellEx)", slot))) {
            delete_slot(owner, slot);
        }
    }
}

std::vector<std::wstring> types_with_associations()
{
    std::vector<std::wstring> types;
    wide_registry_key associations;
    if (associations.open(HKEY_CURRENT_USER, std::wstring{FILE_ASSOCIATIONS}, KEY_READ) != ERROR_SUCCESS) {
        return types;
    }
    std::wstring name;
    for (DWORD index = 0; associations.enumerate_subkey(index, name) == ERROR_SUCCESS; ++index) {
        if (name.starts_with(L'.')) {
            types.push_back(name);
        }
    }
    return types;
}

// A treatment without the suite's mark is not the suite's, and stays.
void clear_treatment(const std::wstring& type)
{
    const std::wstring path = below(FILE_ASSOCIATIONS, type);
    DWORD marker = 0;
    wide_registry_key key;
    if (read_number(HKEY_CURRENT_USER, path.c_str(), TREATMENT_MARKER_VALUE, RRF_RT_REG_DWORD, marker) ==
            ERROR_SUCCESS &&
        marker != 0 && key.open(HKEY_CURRENT_USER, path, KEY_READ_WRITE) == ERROR_SUCCESS) {
        key.delete_value(L"Treatment");
        key.delete_value(TREATMENT_MARKER_VALUE);
    }
}

} // namespace

UINT remove_icon_handler(const action_log& log)
{
    log.line(L"Starting...");
    for (const wchar_t* root : {CLASSES, FILE_ASSOCIATIONS}) {
        sweep_handler_slot(root, L"IconHandler");
    }
    for (const std::wstring& type : types_with_associations()) {
        clear_treatment(type);
    }
    for (const wchar_t* root : {CLASSES, FILE_ASSOCIATIONS}) {
        sweep_handler_slot(root, THUMBNAIL_HANDLER_SLOT);
    }

    if (!restore_drive_icons()) {
        log.error(L"Failed to update registry.");
        return ERROR_INSTALL_FAILURE;
    }
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    log.line(L"Registry updated successfully.");
    return ERROR_SUCCESS;
}

} // namespace custom_actions
