#include "custom_actions/common/installer_session.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "custom_actions/shell_registration/property_lists.h"

#include <unordered_set>
#include <vector>

namespace custom_actions {
namespace {

bool process_is_elevated() noexcept
{
    kernel_handle token;
    TOKEN_ELEVATION elevation{};
    DWORD size = sizeof elevation;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) &&
           GetTokenInformation(token.get(), TokenElevation, &elevation, size, &size) &&
           elevation.TokenIsElevated != 0;
}

// Whether there is a handler, anybody's, that can be read.
bool has_property_handler(std::string_view extension)
{
    registry_key key;
    registry_value handler;
    return key.open(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_READ) == ERROR_SUCCESS &&
           key.read_whole("", 1024, handler) == ERROR_SUCCESS && is_handler(handler.data);
}

bool install_property_handler(std::string_view extension, REGSAM view)
{
    registry_key key;
    if (key.create(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_WRITE | view) != ERROR_SUCCESS ||
        key.write_text("", std::string{PROPERTY_HANDLER_CLSID}) != ERROR_SUCCESS) {
        return false;
    }
    key.close();
    return is_our_property_handler(extension);
}

void replace_foreign_handler(std::string_view extension, REGSAM view, std::vector<std::string>& failures)
{
    const std::string name{extension};
    override_property_handler(extension, view);
    if (is_our_property_handler(extension)) {
        log_property_handler("overrode existing handler for '" + name + "' (backup saved)");
    } else {
        failures.push_back(name + " (force override)");
        log_property_handler(
            "FAILED to override handler for '" + name + "' - it is still NOT our CLSID after the write");
    }
}

void install_first_handler(std::string_view extension, REGSAM view, std::vector<std::string>& failures)
{
    if (install_property_handler(extension, view)) {
        write_details_lists(extension);
    } else {
        failures.push_back(std::string{extension} + " (fresh install)");
        log_property_handler("FAILED fresh install for '" + std::string{extension} + "'");
    }
}

// Returns the extensions that could not be registered, each with what was tried.
std::vector<std::string> register_handlers(REGSAM view)
{
    const std::unordered_set<std::string_view> overridden{
        FORCE_OVERRIDE_EXTENSIONS.begin(), FORCE_OVERRIDE_EXTENSIONS.end()};
    std::vector<std::string> failures;
    for (const std::string_view extension : PROPERTY_HANDLER_EXTENSIONS) {
        if (!has_property_handler(extension)) {
            install_first_handler(extension, view, failures);
        } else if (overridden.contains(extension) && !is_our_property_handler(extension)) {
            replace_foreign_handler(extension, view, failures);
        }
    }
    return failures;
}

// Opens the detail lists of `extension`; where that fails, says for which of them it was.
bool open_for_update(registry_key& key, std::string_view extension, REGSAM view, const char* list)
{
    const std::string path = file_association_path(extension);
    if (key.open(HKEY_LOCAL_MACHINE, path, KEY_READ_WRITE | view) == ERROR_SUCCESS) {
        return true;
    }
    log_property_handler(
        "FAILED to open '" + path + "' for " + list + " update (ACCESS_DENIED if not elevated)");
    return false;
}

void extend_infotip(std::string_view extension, REGSAM view)
{
    registry_key key;
    if (!open_for_update(key, extension, view, "InfoTip")) {
        return;
    }
    if (const auto longer = with_infotip_extra(read_details_list(key, "InfoTip", 2048))) {
        if (const LSTATUS status = key.write_text("InfoTip", *longer); status != ERROR_SUCCESS) {
            log_property_handler(
                "FAILED to append '" + std::string{INFOTIP_EXTRA_PROPERTY} + "' to InfoTip for '" +
                std::string{extension} + "': error " + std::to_string(status));
        }
    }
}

void extend_full_details(std::string_view extension, std::string_view property, REGSAM view)
{
    registry_key key;
    if (!open_for_update(key, extension, view, "FullDetails")) {
        return;
    }
    const std::string details = read_details_list(key, "FullDetails", 4096);
    if (const auto longer = with_full_details_extra(details, property)) {
        if (const LSTATUS status = key.write_text("FullDetails", *longer); status != ERROR_SUCCESS) {
            log_property_handler(
                "FAILED to insert '" + std::string{property} + "' into FullDetails for '" +
                std::string{extension} + "': error " + std::to_string(status));
        }
    }
}

void extend_details_lists(REGSAM view)
{
    for (const std::string_view extension : EXTENDED_DETAILS_EXTENSIONS) {
        if (!is_our_property_handler(extension)) {
            continue;
        }
        extend_infotip(extension, view);
        for (const std::string_view property : FULL_DETAILS_EXTRA_PROPERTIES) {
            extend_full_details(extension, property, view);
        }
    }
}

} // namespace

void override_property_handler(std::string_view extension, REGSAM view)
{
    const std::string path = property_handler_path(extension);
    registry_key key;
    if (const LSTATUS status = key.open(HKEY_LOCAL_MACHINE, path, KEY_READ_WRITE | view);
        status != ERROR_SUCCESS) {
        log_property_handler(
            "FAILED to open '" + path + "' for write: error " + std::to_string(status) +
            (status == ERROR_ACCESS_DENIED ? " (ACCESS_DENIED - process is not elevated)" : ""));
        return;
    }
    registry_value current;
    key.read_whole("", 1024, current);
    if (!current.text().empty() && key.find_value(ORIGINAL_HANDLER_VALUE) == ERROR_FILE_NOT_FOUND) {
        key.write_raw_text(ORIGINAL_HANDLER_VALUE, current.data);
    }
    if (const LSTATUS status = key.write_text("", std::string{PROPERTY_HANDLER_CLSID});
        status != ERROR_SUCCESS) {
        log_property_handler(
            "FAILED to write default CLSID for '" + std::string{extension} + "': error " +
            std::to_string(status));
    }
}

bool write_details_lists(std::string_view extension)
{
    registry_key key;
    return key.create(HKEY_LOCAL_MACHINE, file_association_path(extension), KEY_WRITE) == ERROR_SUCCESS &&
           key.write_text("FullDetails", std::string{FULL_DETAILS_LIST}) == ERROR_SUCCESS &&
           key.write_text("PreviewDetails", std::string{PREVIEW_DETAILS_LIST}) == ERROR_SUCCESS &&
           key.write_text("InfoTip", std::string{INFOTIP_LIST}) == ERROR_SUCCESS;
}

UINT register_property_handler(MSIHANDLE session)
{
    msi_log(session, L"Custom action: propertyhandler_updateregistry: Starting...");
    if (!process_is_elevated()) {
        log_property_handler(
            "WARNING: not elevated - every HKLM write below will fail. Run build_all.ps1 (or the "
            "installer) as Administrator.");
    }

    const REGSAM view = native_registry_view();
    const std::vector<std::string> failures = register_handlers(view);
    for (const std::string& failure : failures) {
        log_property_handler("  FAILED: " + failure);
    }
    extend_details_lists(view);

    if (failures.empty()) {
        msi_log(session, L"Custom action: propertyhandler_updateregistry: Registry updated successfully.");
        return ERROR_SUCCESS;
    }
    msi_message(
        session,
        INSTALLMESSAGE_ERROR,
        L"Custom action: propertyhandler_updateregistry: One or more property handler registrations FAILED "
        L"(see [propertyhandler] output for the specific extension).");
    return session != 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace custom_actions
