#include "custom_actions/common/contains.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "custom_actions/shell_registration/property_lists.h"

#include <vector>

namespace custom_actions {
namespace {

void log_property_handler(const std::string& text)
{
    write_console_line("[propertyhandler] " + text);
}

// The extensions that could not be registered, each with what was tried.
using failure_list = std::vector<std::string>;

bool process_is_elevated() noexcept
{
    kernel_handle token;
    TOKEN_ELEVATION elevation{};
    DWORD size = sizeof elevation;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) &&
           GetTokenInformation(token.get(), TokenElevation, &elevation, size, &size) &&
           elevation.TokenIsElevated != 0;
}

// Whether a value is a handler at all: more than a terminating zero.
bool is_handler(const registry_value& value) noexcept
{
    return value.data.size() >= 2;
}

// Whether there is a handler, anybody's, that can be read.
bool has_property_handler(std::string_view extension)
{
    ansi_registry_key key;
    registry_value handler;
    return key.open(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_READ) == ERROR_SUCCESS &&
           key.read_whole("", HANDLER_SIZE, handler) == ERROR_SUCCESS && is_handler(handler);
}

bool is_our_property_handler(std::string_view extension)
{
    ansi_registry_key key;
    registry_value handler;
    return key.open(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_READ) == ERROR_SUCCESS &&
           key.read("", HANDLER_SIZE, handler) == ERROR_SUCCESS && is_handler(handler) &&
           handler.text() == PROPERTY_HANDLER_CLSID;
}

// Puts the suite's handler in place of another one, which is kept in "OriginalPropertyHandler" unless there
// is an earlier backup, or that cannot be read. A backup that cannot be written does not stop it.
void override_property_handler(const std::string& extension, REGSAM view)
{
    const std::string path = property_handler_path(extension);
    ansi_registry_key key;
    if (const LSTATUS status = key.open(HKEY_LOCAL_MACHINE, path, KEY_READ_WRITE | view);
        status != ERROR_SUCCESS) {
        log_property_handler(
            "FAILED to open '" + path + "' for write: error " + std::to_string(status) +
            (status == ERROR_ACCESS_DENIED ? " (ACCESS_DENIED - process is not elevated)" : ""));
        return;
    }
    registry_value current;
    key.read_whole("", HANDLER_SIZE, current);
    if (!current.text().empty() && key.find_value(ORIGINAL_HANDLER_VALUE) == ERROR_FILE_NOT_FOUND) {
        key.write(ORIGINAL_HANDLER_VALUE, REG_SZ, current.data);
    }
    if (const LSTATUS status = key.write_text("", std::string{PROPERTY_HANDLER_CLSID});
        status != ERROR_SUCCESS) {
        log_property_handler(
            "FAILED to write default CLSID for '" + extension + "': error " + std::to_string(status));
    }
}

void replace_handler(const std::string& extension, REGSAM view, failure_list& failures)
{
    override_property_handler(extension, view);
    if (is_our_property_handler(extension)) {
        log_property_handler("overrode existing handler for '" + extension + "' (backup saved)");
    } else {
        failures.push_back(extension + " (force override)");
        log_property_handler(
            "FAILED to override handler for '" + extension + "' - it is still NOT our CLSID after the write");
    }
}

bool write_handler(const std::string& extension, REGSAM view)
{
    ansi_registry_key key;
    if (key.create(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_WRITE | view) != ERROR_SUCCESS ||
        key.write_text("", std::string{PROPERTY_HANDLER_CLSID}) != ERROR_SUCCESS) {
        return false;
    }
    key.close();
    return is_our_property_handler(extension);
}

// Stops at the first list that cannot be written.
void write_details_lists(std::string_view extension)
{
    ansi_registry_key key;
    if (key.create(HKEY_LOCAL_MACHINE, file_association_path(extension), KEY_WRITE) != ERROR_SUCCESS) {
        return;
    }
    for (const auto& [name, list] : DETAILS_LISTS) {
        if (key.write_text(name, std::string{list}) != ERROR_SUCCESS) {
            return;
        }
    }
}

void install_handler(const std::string& extension, REGSAM view, failure_list& failures)
{
    if (write_handler(extension, view)) {
        write_details_lists(extension);
    } else {
        failures.push_back(extension + " (fresh install)");
        log_property_handler("FAILED fresh install for '" + extension + "'");
    }
}

failure_list register_handlers(REGSAM view)
{
    failure_list failures;
    for (const std::string_view extension : PROPERTY_HANDLER_EXTENSIONS) {
        const bool found = has_property_handler(extension);
        const bool may_be_overridden = contains(FORCE_OVERRIDE_EXTENSIONS, extension);
        const bool ours = found && may_be_overridden && is_our_property_handler(extension);
        switch (choose_handler(found, ours, may_be_overridden)) {
        case handler_choice::keep:
            break;
        case handler_choice::override:
            replace_handler(std::string{extension}, view, failures);
            break;
        case handler_choice::install:
            install_handler(std::string{extension}, view, failures);
            break;
        }
    }
    return failures;
}

// Opens the detail lists of `extension`; logs which of them it was for if that fails.
bool open_for_update(ansi_registry_key& key, std::string_view extension, REGSAM view, const char* list)
{
    const std::string path = file_association_path(extension);
    if (key.open(HKEY_LOCAL_MACHINE, path, KEY_READ_WRITE | view) == ERROR_SUCCESS) {
        return true;
    }
    log_property_handler(
        "FAILED to open '" + path + "' for " + list + " update (ACCESS_DENIED if not elevated)");
    return false;
}

void extend_infotip(const std::string& extension, REGSAM view)
{
    ansi_registry_key key;
    if (!open_for_update(key, extension, view, "InfoTip")) {
        return;
    }
    const auto longer = with_infotip_extra(read_details_list(key, "InfoTip", INFOTIP_LIMIT));
    if (const LSTATUS status = longer ? key.write_text("InfoTip", *longer) : ERROR_SUCCESS;
        status != ERROR_SUCCESS) {
        log_property_handler(
            "FAILED to append '" + std::string{INFOTIP_EXTRA_PROPERTY} + "' to InfoTip for '" + extension +
            "': error " + std::to_string(status));
    }
}

void extend_full_details(const std::string& extension, std::string_view property, REGSAM view)
{
    ansi_registry_key key;
    if (!open_for_update(key, extension, view, "FullDetails")) {
        return;
    }
    const auto longer =
        with_full_details_extra(read_details_list(key, "FullDetails", FULL_DETAILS_LIMIT), property);
    if (const LSTATUS status = longer ? key.write_text("FullDetails", *longer) : ERROR_SUCCESS;
        status != ERROR_SUCCESS) {
        log_property_handler(
            "FAILED to insert '" + std::string{property} + "' into FullDetails for '" + extension +
            "': error " + std::to_string(status));
    }
}

void extend_details_lists(REGSAM view)
{
    for (const std::string_view extension : EXTENDED_DETAILS_EXTENSIONS) {
        if (!is_our_property_handler(extension)) {
            continue;
        }
        extend_infotip(std::string{extension}, view);
        for (const std::string_view property : FULL_DETAILS_EXTRA_PROPERTIES) {
            extend_full_details(std::string{extension}, property, view);
        }
    }
}

} // namespace

UINT register_property_handler(const action_log& log)
{
    log.line(L"Starting...");
    if (!process_is_elevated()) {
        log_property_handler(
            "WARNING: not elevated - every HKLM write below will fail. Run build_all.ps1 (or the "
            "installer) as Administrator.");
    }

    const REGSAM view = native_registry_view();
    const failure_list failures = register_handlers(view);
    for (const std::string& failure : failures) {
        log_property_handler("  FAILED: " + failure);
    }
    extend_details_lists(view);

    if (failures.empty()) {
        log.line(L"Registry updated successfully.");
        return ERROR_SUCCESS;
    }
    log.error(
        L"One or more property handler registrations FAILED (see [propertyhandler] output for the specific "
        L"extension).");
    return log.session() != 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace custom_actions
