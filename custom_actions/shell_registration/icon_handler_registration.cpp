#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/text.h"
#include "custom_actions/shell_registration/icon_handler.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>
#include <cwchar>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

constexpr DWORD LONGEST_VALUE_NAME = 16384; // characters, with the terminating zero

// The text of a value; empty if it is not there, cannot be read or is no text.
std::wstring text_of(HKEY root, const std::wstring& path, const wchar_t* name)
{
    wide_registry_key key;
    registry_value value;
    if (key.open(root, path, KEY_READ) != ERROR_SUCCESS ||
        key.read(name, ICON_HANDLER_SIZE, value) != ERROR_SUCCESS) {
        return {};
    }
    return value.wide_text().value_or(L"");
}

// The ProgId by which the shell opens files of the type; empty if there is none.
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
    wide_registry_key key;
    if (key.open(HKEY_CURRENT_USER, path, KEY_READ) != ERROR_SUCCESS) {
        return names;
    }
    std::wstring name(LONGEST_VALUE_NAME, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD length = LONGEST_VALUE_NAME;
        if (RegEnumValueW(key.get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            return names;
        }
        names.push_back(name.substr(0, length));
    }
}

// Adds a ProgId unless it is empty, "*", a packaged application's ("AppX...") or known already. Case does not
// count.
void add_progid(std::vector<std::wstring>& progids, const std::wstring& progid)
{
    const bool known = std::ranges::any_of(
        progids, [&](const std::wstring& other) { return equal_ignoring_case(other, progid); });
    const bool packaged = equal_ignoring_case(progid.substr(0, 4), L"AppX");
    if (!progid.empty() && progid != L"*" && !packaged && !known) {
        progids.push_back(progid);
    }
}

// The ProgIds that serve the file type (".ico"), each once, in the spelling that was found first.
std::vector<std::wstring> collect_progids(const std::wstring& type)
{
    const std::wstring classes = LR"(Software\Classes\)" + type;
    const std::wstring choice =
        LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\)" + type + LR"(\UserChoice)";
    std::vector<std::wstring> progids;
    add_progid(progids, associated_progid(type));
    add_progid(progids, text_of(HKEY_CURRENT_USER, choice, L"ProgId"));
    add_progid(progids, text_of(HKEY_CURRENT_USER, classes, L""));
    add_progid(progids, text_of(HKEY_CLASSES_ROOT, type, L""));
    for (const std::wstring& name : value_names(classes + LR"(\OpenWithProgids)")) {
        add_progid(progids, name);
    }
    return progids;
}

// Makes the suite's handler the one of `HKEY_CURRENT_USER\<path>`. Another handler is kept beside it, unless
// there is an earlier backup that can be read. Throws windows_error "Failed to create/open registry key".
void set_handler_with_backup(const std::wstring& path)
{
    const std::wstring slot = path + LR"(\ShellEx\IconHandler)";
    wide_registry_key key;
    check_win32(
        key.create(HKEY_CURRENT_USER, slot, KEY_READ_WRITE | native_registry_view()),
        "Failed to create/open registry key");
    const std::wstring current = key.whole_text(L"", ICON_HANDLER_SIZE);
    if (!current.empty() && current != ICON_HANDLER_CLSID &&
        key.whole_text(ICON_HANDLER_BACKUP_VALUE, ICON_HANDLER_SIZE).empty()) {
        key.write_text(ICON_HANDLER_BACKUP_VALUE, current);
    }
    key.write_text(L"", ICON_HANDLER_CLSID);
}

} // namespace

void register_icon_handler(const action_log& log)
{
    log.line(L"Starting...");
    for (const std::wstring type : {L".ini", L".ico"}) {
        set_handler_with_backup(LR"(Software\Classes\SystemFileAssociations\)" + type);
        for (const std::wstring& progid : collect_progids(type)) {
            set_handler_with_backup(LR"(Software\Classes\)" + progid);
        }
    }
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    log.line(L"Registry updated successfully.");
}

} // namespace custom_actions
