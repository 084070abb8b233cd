#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "custom_actions/shell_registration/property_lists.h"

#include <vector>

namespace custom_actions {
namespace {

// Every key is opened without a view flag: the library is a 64-bit one, and removal relies on that.

// The extensions whose handler is the suite's, in the order of the registry. The list is complete before
// anything is changed.
std::vector<std::string> our_extensions(const ansi_registry_key& handlers)
{
    std::vector<std::string> extensions;
    std::string extension;
    for (DWORD index = 0; handlers.enumerate_subkey(index, extension) == ERROR_SUCCESS; ++index) {
        ansi_registry_key key;
        registry_value handler;
        if (key.open(handlers.get(), extension, KEY_READ) == ERROR_SUCCESS &&
            key.read("", HANDLER_SIZE, handler) == ERROR_SUCCESS &&
            handler.text() == PROPERTY_HANDLER_CLSID) {
            extensions.push_back(extension);
        }
    }
    return extensions;
}

// Writes the detail list back as `change` returns it; nothing means that it stays as it is.
template <class Change>
void change_details_list(const std::string& extension, const char* name, DWORD limit, Change change)
{
    ansi_registry_key key;
    if (key.open(HKEY_LOCAL_MACHINE, file_association_path(extension), KEY_READ_WRITE) != ERROR_SUCCESS) {
        return;
    }
    if (const std::optional<std::string> changed = change(read_details_list(key, name, limit))) {
        key.write_text(name, *changed);
    }
}

// Gives the extension the handler back that it had before; false if no backup can be read. The backup goes
// only once its content is back in its place.
bool restore_foreign_handler(const std::string& extension)
{
    ansi_registry_key key;
    registry_value original;
    if (key.open(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_READ_WRITE) != ERROR_SUCCESS ||
        key.read_whole(ORIGINAL_HANDLER_VALUE, HANDLER_SIZE, original) != ERROR_SUCCESS ||
        original.text().empty()) {
        return false;
    }
    if (key.write("", REG_SZ, original.data) == ERROR_SUCCESS) {
        key.delete_value(ORIGINAL_HANDLER_VALUE);
    }
    return true;
}

// Deletes the list if it is exactly the suite's; returns whether it did.
bool delete_value_if_matches(const ansi_registry_key& key, const char* name, std::string_view expected)
{
    return read_details_list(key, name, FULL_DETAILS_LIMIT) == expected &&
           key.delete_value(name) == ERROR_SUCCESS;
}

void remove_details_lists(const std::string& extension)
{
    const std::string path = file_association_path(extension);
    ansi_registry_key key;
    if (key.open(HKEY_LOCAL_MACHINE, path, KEY_READ_WRITE) != ERROR_SUCCESS) {
        return;
    }
    for (const auto& [name, list] : DETAILS_LISTS) {
        if (delete_value_if_matches(key, name, list)) {
            write_console_line("  - Removed matching " + std::string{name} + ".");
        }
    }
    DWORD subkeys = 0;
    DWORD values = 0;
    if (key.count(subkeys, values) == ERROR_SUCCESS && subkeys == 0 && values == 0) {
        key.close();
        RegDeleteKeyA(HKEY_LOCAL_MACHINE, path.c_str());
    }
}

// Returns whether the suite's handler is gone.
bool remove_extension(const ansi_registry_key& handlers, const std::string& extension)
{
    change_details_list(extension, "InfoTip", INFOTIP_LIMIT, without_infotip_extra);
    for (const std::string_view property : FULL_DETAILS_EXTRA_PROPERTIES) {
        change_details_list(extension, "FullDetails", FULL_DETAILS_LIMIT, [&](const std::string& list) {
            return without_full_details_extra(list, property);
        });
    }
    if (restore_foreign_handler(extension)) {
        return true;
    }
    const bool deleted = handlers.delete_subkey(extension.c_str()) == ERROR_SUCCESS;
    remove_details_lists(extension);
    return deleted;
}

bool remove_handlers()
{
    ansi_registry_key handlers;
    if (const LSTATUS status = handlers.open(HKEY_LOCAL_MACHINE, PROPERTY_HANDLERS_KEY, KEY_READ_WRITE);
        status != ERROR_SUCCESS) {
        return status == ERROR_FILE_NOT_FOUND;
    }
    bool all_removed = true;
    for (const std::string& extension : our_extensions(handlers)) {
        all_removed = remove_extension(handlers, extension) && all_removed;
    }
    return all_removed;
}

} // namespace

UINT remove_property_handler(const action_log& log)
{
    log.line(L"Starting...");
    if (remove_handlers()) {
        log.line(L"Registry updated successfully.");
        return ERROR_SUCCESS;
    }
    log.error(L"Failed to update registry.");
    return ERROR_INSTALL_FAILURE;
}

} // namespace custom_actions
