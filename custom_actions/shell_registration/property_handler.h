#pragma once

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/registry_key.h"

#include <windows.h>

#include <string>
#include <string_view>

// The suite's property handler, registered and removed for the whole machine, through the ANSI registry
// functions. Lines about single extensions go to standard output, start and end to the installer's log.
namespace custom_actions {

// Registers the handler for each of PROPERTY_HANDLER_EXTENSIONS, with the detail lists of those that had no
// handler, and adds the extra properties to the lists of EXTENDED_DETAILS_EXTENSIONS. A failed registration
// never fails the installation: the result is ERROR_SUCCESS with a session, and ERROR_INSTALL_FAILURE without
// one. Throws std::bad_alloc alone.
UINT register_property_handler(const action_log& log);

// Undoes that: every extension that carries the suite's handler gets its former one back, or loses the key
// and the detail lists that are still the suite's own. Returns ERROR_INSTALL_FAILURE if the handlers' key is
// there and cannot be opened, or if an extension's key cannot be deleted; skips everything else that fails.
// Throws std::bad_alloc alone.
UINT remove_property_handler(const action_log& log);

// What registration does about one extension.
enum class handler_choice {
    keep,     // somebody else's handler, or our own
    override, // somebody else's gives way to ours, and is kept in a backup
    install,  // there is none
};

handler_choice choose_handler(bool has_handler, bool is_ours, bool may_be_overridden) noexcept;

// The paths of an extension's handler and of its detail lists, below HKEY_LOCAL_MACHINE.
std::string property_handler_path(std::string_view extension);
std::string file_association_path(std::string_view extension);

// A detail list as text, whatever its type; empty if it is not there or cannot be read into `limit` bytes.
std::string read_details_list(const ansi_registry_key& key, const char* name, DWORD limit);

// The limits of the two lists that extra properties are added to, in bytes.
inline constexpr DWORD INFOTIP_LIMIT = 2048;
inline constexpr DWORD FULL_DETAILS_LIMIT = 4096;

// The size that a handler's class identifier is expected to need, in bytes.
inline constexpr DWORD HANDLER_SIZE = 1024;

// Writes a line on standard output.
void write_console_line(const std::string& text);

} // namespace custom_actions
