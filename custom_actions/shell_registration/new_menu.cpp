#include "custom_actions/shell_registration/new_menu.h"

#include "custom_actions/common/registry_key.h"

#include <string>

namespace custom_actions {

void restore_new_menu(const action_log& log)
{
    log.line(L"Restoring built in New (just in case)...");
    const std::wstring path = LR"(Software\Classes\Directory\Background\ShellEx\ContextMenuHandlers\New)";
    wide_registry_key key;
    const bool restored = key.open(HKEY_CURRENT_USER, path, KEY_ALL_ACCESS) == ERROR_SUCCESS &&
                          key.delete_value(L"") == ERROR_SUCCESS;
    log.line(restored ? L"Restored New" : L"completed");
}

} // namespace custom_actions
