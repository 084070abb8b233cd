#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/shell_registration/icon_handler.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>
#include <cwchar>

namespace custom_actions {
namespace {

// The text of a value of at most 2048 bytes; empty where it is not there, cannot be read or is no text.
std::wstring text_of(HKEY root, const std::wstring& path, const wchar_t* name)
{
    registry_key key;
    registry_value value;
    if (key.open(root, path, KEY_READ) != ERROR_SUCCESS || key.read(name, 2048, value) != ERROR_SUCCESS) {
        return {};
    }
    return value.wide_text().value_or(L"");
}

// The ProgId by which the shell opens files of the type; empty where it names none.
std::wstring associated_progid(const std::wstring& type)
{
    DWORD length = 0;
    const auto query = [&](wchar_t* text) {
        return AssocQueryStringW(ASSOCF_NONE, ASSOCSTR_PROGID, type.c_str(), nullptr, text, &length);
    };
    const HRESULT sized = query(nullptr);
    if ((FAILED(sized) && sized != E_POINTER) || length == 0) {
        return {};
    }
    std::wstring progid(length, L'\0');
    if (FAILED(query(progid.data()))) {
        return {};
    }
    progid.resize(std::wcslen(progid.c_str()));
    return progid;
}

std::vector<std::wstring> value_names(const std::wstring& path)
{
    std::vector<std::wstring> names;
    registry_key key;
    if (key.open(HKEY_CURRENT_USER, path, KEY_READ) != ERROR_SUCCESS) {
        return names;
    }
    std::wstring name;
    for (DWORD index = 0; key.enumerate_value_name(index, name) == ERROR_SUCCESS; ++index) {
        names.push_back(name);
    }
    return names;
}

void register_for_type(std::wstring type)
{
    if (!type.starts_with(L'.')) {
        type.insert(0, 1, L'.');
    }
    const auto set_handler = [](const std::wstring& path) {
        set_handler_with_backup(
            path + LR"(\ShellEx\IconHandler)", L"", ICON_HANDLER_CLSID, ICON_HANDLER_BACKUP_VALUE);
    };
    set_handler(LR"(Software\Classes\SystemFileAssociations\)" + type);
    for (const std::wstring& progid : collect_progids(type)) {
        set_handler(LR"(Software\Classes\)" + progid);
    }
}

} // namespace

void set_handler_with_backup(
    const std::wstring& path, const wchar_t* name, const std::wstring& data, const wchar_t* backup_name)
{
    registry_key key;
    if (const LSTATUS status = key.create(HKEY_CURRENT_USER, path, KEY_READ_WRITE | native_registry_view());
        status != ERROR_SUCCESS) {
        throw windows_error{"Failed to create/open registry key", static_cast<DWORD>(status)};
    }
    const std::wstring current = key.whole_text(name, 2048);
    if (!current.empty() && current != data && key.whole_text(backup_name, 2048).empty()) {
        key.write_text(backup_name, current);
    }
    key.write_text(name, data);
}

void add_progid(std::vector<std::wstring>& progids, const std::wstring& progid)
{
    const bool known = std::ranges::any_of(
        progids, [&](const std::wstring& other) { return equal_ignoring_case(other, progid); });
    const bool packaged = equal_ignoring_case(progid.substr(0, 4), L"AppX");
    if (!progid.empty() && progid != L"*" && !packaged && !known) {
        progids.push_back(progid);
    }
}

std::vector<std::wstring> collect_progids(const std::wstring& type)
{
    const std::wstring classes = LR"(Software\Classes\)" + type;
    std::vector<std::wstring> progids;
    add_progid(progids, associated_progid(type));
    add_progid(
        progids,
        text_of(
            HKEY_CURRENT_USER,
            LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\)" + type + LR"(\UserChoice)",
            L"ProgId"));
    add_progid(progids, text_of(HKEY_CURRENT_USER, classes, L""));
    add_progid(progids, text_of(HKEY_CLASSES_ROOT, type, L""));
    for (const std::wstring& name : value_names(classes + LR"(\OpenWithProgids)")) {
        add_progid(progids, name);
    }
    return progids;
}

void register_icon_handler(MSIHANDLE session)
{
    msi_log(session, L"Custom action: iconhandler_add_defaults_to_registry: Starting...");
    for (const wchar_t* type : {L".ini", L".ico"}) {
        register_for_type(type);
    }
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    msi_log(session, L"Custom action: iconhandler_add_defaults_to_registry: Registry updated successfully.");
}

} // namespace custom_actions
