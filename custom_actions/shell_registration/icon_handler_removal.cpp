#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/text.h"
#include "custom_actions/shell_registration/drive_icons.h"
#include "custom_actions/shell_registration/icon_handler.h"

#include <shlobj.h>

namespace custom_actions {
namespace {

constexpr const wchar_t* CLASSES = LR"(Software\Classes)";
constexpr const wchar_t* FILE_ASSOCIATIONS = LR"(Software\Classes\SystemFileAssociations)";

std::wstring below(const std::wstring& path, const std::wstring& name)
{
    return path + L'\\' + name;
}

enum class slot_state { left_alone, restored, to_be_deleted };

// Looks into one slot, and gives back the handler that the suite's replaced. The backup goes only when its
// content is back in its place.
slot_state restore_slot(const std::wstring& path)
{
    registry_key key;
    if (key.open(HKEY_CURRENT_USER, path, KEY_READ_WRITE) != ERROR_SUCCESS ||
        !equal_ignoring_case(key.whole_text(L"", 2048), ICON_HANDLER_CLSID)) {
        return slot_state::left_alone;
    }
    const std::wstring backup = key.whole_text(ICON_HANDLER_BACKUP_VALUE, 2048);
    if (backup.empty()) {
        return slot_state::to_be_deleted;
    }
    if (key.write_text(L"", backup) == ERROR_SUCCESS) {
        key.delete_value(ICON_HANDLER_BACKUP_VALUE);
    }
    return slot_state::restored;
}

// Deletes the slot of one type or ProgId, and "ShellEx" with it once that has no subkeys.
void delete_slot(const std::wstring& owner, const std::wstring& slot)
{
    registry_key key;
    if (key.open(HKEY_CURRENT_USER, owner + LR"(\ShellEx)", KEY_WRITE | KEY_QUERY_VALUE) != ERROR_SUCCESS ||
        key.delete_subkey(slot.c_str()) != ERROR_SUCCESS) {
        return;
    }
    if (key.has_no_subkeys() && key.open(HKEY_CURRENT_USER, owner, KEY_WRITE) == ERROR_SUCCESS) {
        key.delete_subkey(L"ShellEx");
    }
}

std::vector<std::wstring> types_with_associations()
{
    std::vector<std::wstring> types;
    registry_key associations;
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
    DWORD size = sizeof marker;
    registry_key key;
    if (RegGetValueW(
            HKEY_CURRENT_USER,
            path.c_str(),
            TREATMENT_MARKER_VALUE,
            RRF_RT_REG_DWORD,
            nullptr,
            &marker,
            &size) == ERROR_SUCCESS &&
        marker != 0 && key.open(HKEY_CURRENT_USER, path, KEY_READ_WRITE) == ERROR_SUCCESS) {
        key.delete_value(L"Treatment");
        key.delete_value(TREATMENT_MARKER_VALUE);
    }
}

} // namespace

void sweep_handler_slot(const std::wstring& root, const std::wstring& slot)
{
    registry_key key;
    if (key.open(HKEY_CURRENT_USER, root, KEY_READ) != ERROR_SUCCESS) {
        return;
    }
    std::wstring name;
    for (DWORD index = 0; key.enumerate_subkey(index, name) == ERROR_SUCCESS; ++index) {
        const std::wstring owner = below(root, name);
        if (restore_slot(below(owner + LR"(\ShellEx)", slot)) == slot_state::to_be_deleted) {
            delete_slot(owner, slot);
        }
    }
}

UINT remove_icon_handler(MSIHANDLE session)
{
    msi_log(session, L"Custom action: iconhandler_remove_registry: Starting...");
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
        msi_message(
            session,
            INSTALLMESSAGE_ERROR,
            L"Custom action: iconhandler_remove_registry: Failed to update registry.");
        return ERROR_INSTALL_FAILURE;
    }
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    msi_log(session, L"Custom action: iconhandler_remove_registry: Registry updated successfully.");
    return ERROR_SUCCESS;
}

} // namespace custom_actions
