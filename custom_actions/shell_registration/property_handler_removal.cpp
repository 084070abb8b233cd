#include "custom_actions/common/installer_session.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "custom_actions/shell_registration/property_lists.h"

#include <vector>

namespace custom_actions {
namespace {

// Every key is opened without a view flag: the library is a 64-bit one, and removal leaves it at that.

// The extensions whose handler is the suite's, in the order of the registry, complete before anything is
// changed.
std::vector<std::string> our_extensions(const registry_key& handlers)
{
    std::vector<std::string> extensions;
    std::string extension;
    for (DWORD index = 0; handlers.enumerate_subkey(index, extension) == ERROR_SUCCESS; ++index) {
        registry_key key;
        registry_value handler;
        if (key.open(handlers.get(), extension, KEY_READ) == ERROR_SUCCESS &&
            key.read("", 1024, handler) == ERROR_SUCCESS && handler.text() == PROPERTY_HANDLER_CLSID) {
            extensions.push_back(extension);
        }
    }
    return extensions;
}

// Writes the detail list back as `change` has it, where it changes anything.
template <class Change>
void change_details_list(const std::string& extension, const char* name, DWORD limit, Change change)
{
    registry_key key;
    if (key.open(HKEY_LOCAL_MACHINE, file_association_path(extension), KEY_READ_WRITE) != ERROR_SUCCESS) {
        return;
    }
    if (const std::optional<std::string> changed = change(read_details_list(key, name, limit))) {
        key.write_text(name, *changed);
    }
}

enum class former_handler { none, restored, unreadable };

// Gives the extension the handler back that it had before. The backup goes only when its content is back in
// its place.
former_handler restore_foreign_handler(const std::string& extension)
{
    registry_key key;
    if (key.open(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_READ_WRITE) != ERROR_SUCCESS) {
        return former_handler::none;
    }
    registry_value original;
    if (const LSTATUS status = key.read_whole(ORIGINAL_HANDLER_VALUE, 1024, original);
        status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        return former_handler::unreadable;
    }
    if (!is_handler(original.data)) {
        return former_handler::none;
    }
    if (key.write_raw_text("", original.data) == ERROR_SUCCESS) {
        key.delete_value(ORIGINAL_HANDLER_VALUE);
    }
    return former_handler::restored;
}

void remove_details_lists(const std::string& extension)
{
    struct row {
        const char* value;
        std::string_view list;
    };

    static constexpr row rows[]{
        {.value = "FullDetails", .list = FULL_DETAILS_LIST},
        {.value = "PreviewDetails", .list = PREVIEW_DETAILS_LIST},
        {.value = "InfoTip", .list = INFOTIP_LIST},
    };

    const std::string path = file_association_path(extension);
    registry_key key;
    if (key.open(HKEY_LOCAL_MACHINE, path, KEY_READ_WRITE) != ERROR_SUCCESS) {
        return;
    }
    for (const auto& [value, list] : rows) {
        if (delete_value_if_matches(key, value, list)) {
            write_console_line("  - Removed matching " + std::string{value} + ".");
        }
    }
    const auto content = key.count_content();
    if (content && content->subkeys == 0 && content->values == 0) {
        key.close();
        RegDeleteKeyA(HKEY_LOCAL_MACHINE, path.c_str());
    }
}

// Whether the extension's handler is gone. A key with a backup that cannot be read stays.
bool remove_extension(const registry_key& handlers, const std::string& extension)
{
    change_details_list(extension, "InfoTip", 2048, without_infotip_extra);
    for (const std::string_view property : FULL_DETAILS_EXTRA_PROPERTIES) {
        change_details_list(extension, "FullDetails", 4096, [&](const std::string& list) {
            return without_full_details_extra(list, property);
        });
    }
    if (const former_handler former = restore_foreign_handler(extension); former != former_handler::none) {
        return former == former_handler::restored;
    }
    const bool deleted = handlers.delete_subkey(extension) == ERROR_SUCCESS;
    remove_details_lists(extension);
    return deleted;
}

bool remove_handlers()
{
    registry_key handlers;
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

bool delete_value_if_matches(const registry_key& key, const char* name, std::string_view expected)
{
    registry_value value;
    if (key.read(name, 4096, value) != ERROR_SUCCESS) {
        return false;
    }
    const std::string text = value.text();
    return !text.empty() && text == expected && key.delete_value(name) == ERROR_SUCCESS;
}

UINT remove_property_handler(MSIHANDLE session)
{
    msi_log(session, L"Custom action: propertyhandler_removeregistry: Starting...");
    if (remove_handlers()) {
        msi_log(session, L"Custom action: propertyhandler_removeregistry: Registry updated successfully.");
        return ERROR_SUCCESS;
    }
    msi_message(
        session,
        INSTALLMESSAGE_ERROR,
        L"Custom action: propertyhandler_removeregistry: Failed to update registry.");
    return ERROR_INSTALL_FAILURE;
}

} // namespace custom_actions
