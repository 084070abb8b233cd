#pragma once

#include <windows.h>
#include <msi.h>

#include <string>
#include <vector>

// The suite's icon handler, registered and removed for the current user. Everything is below
// HKEY_CURRENT_USER and goes through the wide registry functions.
namespace custom_actions {

inline constexpr const wchar_t* ICON_HANDLER_CLSID = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";

// The slot of thumbnail providers below "ShellEx".
inline constexpr const wchar_t* THUMBNAIL_HANDLER_SLOT = L"{e357fccd-a995-4576-b01f-234630154e96}";

// The value beside a handler that keeps the one that it replaced.
inline constexpr const wchar_t* ICON_HANDLER_BACKUP_VALUE = L"sorvane_original_icon_handler";

// Says of a file type that the suite set its "Treatment".
inline constexpr const wchar_t* TREATMENT_MARKER_VALUE = L"QuorbelTreatment";

// Makes the suite's handler the icon handler of ".ini" and ".ico" and of every ProgId that serves them, and
// keeps what it replaces. Throws windows_error "Failed to create/open registry key"; what was registered
// until then stays.
void register_icon_handler(MSIHANDLE session);

// Takes the suite's icon and thumbnail handlers away from every type and ProgId, gives back what they
// replaced, clears the "Treatment" that the suite set and restores the drive icons. Returns
// ERROR_INSTALL_FAILURE where a drive icon could not be restored; everything else that fails is passed over.
// Throws std::bad_alloc alone.
UINT remove_icon_handler(MSIHANDLE session);

// Writes `data` as the value `name` (empty: the default one) of HKEY_CURRENT_USER\`path`, which is made where
// it is not there. Another text that stood there is kept in `backup_name` first, unless an earlier backup is
// there. Throws windows_error "Failed to create/open registry key".
void set_handler_with_backup(
    const std::wstring& path, const wchar_t* name, const std::wstring& data, const wchar_t* backup_name);

// The ProgIds that serve the file type (".ico"), each once and in the spelling that was found first, without
// those of packaged applications. Throws std::bad_alloc alone.
std::vector<std::wstring> collect_progids(const std::wstring& type);

// Adds a ProgId that is not empty, not "*", not a packaged application's ("AppX...") and not there yet; the
// case of letters does not count.
void add_progid(std::vector<std::wstring>& progids, const std::wstring& progid);

// Takes the suite's handler out of the slot `ShellEx\<slot>` of every key below HKEY_CURRENT_USER\`root`:
// where it replaced another, that one comes back; where not, the slot goes, and an empty "ShellEx" with it.
// The keys themselves stay. Throws std::bad_alloc alone.
void sweep_handler_slot(const std::wstring& root, const std::wstring& slot);

} // namespace custom_actions
