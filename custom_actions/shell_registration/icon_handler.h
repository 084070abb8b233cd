#pragma once

#include "custom_actions/common/installer_session.h"

#include <windows.h>

// The suite's icon handler, registered and removed for the current user: everything is below
// HKEY_CURRENT_USER and goes through the wide registry functions.
namespace custom_actions {

inline constexpr const wchar_t* ICON_HANDLER_CLSID = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";

// The slot of thumbnail providers below "ShellEx".
inline constexpr const wchar_t* THUMBNAIL_HANDLER_SLOT = L"{e357fccd-a995-4576-b01f-234630154e96}";

// The value beside a handler that keeps the one that it replaced.
inline constexpr const wchar_t* ICON_HANDLER_BACKUP_VALUE = L"sorvane_original_icon_handler";

// Says of a file type that the suite set its "Treatment".
inline constexpr const wchar_t* TREATMENT_MARKER_VALUE = L"QuorbelTreatment";

// The size that a handler is expected to need, in bytes.
inline constexpr DWORD ICON_HANDLER_SIZE = 2048;

// Makes the suite's handler the icon handler of ".ini" and ".ico" and of every ProgId that serves them, and
// keeps what it replaces. Throws windows_error "Failed to create/open registry key"; what was registered by
// then stays.
void register_icon_handler(const action_log& log);

// Removes the suite's icon and thumbnail handlers from every type and ProgId, gives back what they replaced,
// clears the "Treatment" that the suite set, and restores the drive icons. Returns ERROR_INSTALL_FAILURE if a
// drive icon could not be restored; skips everything else that fails. Throws std::bad_alloc alone.
UINT remove_icon_handler(const action_log& log);

} // namespace custom_actions
