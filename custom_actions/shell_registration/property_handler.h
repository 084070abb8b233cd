#pragma once

#include "custom_actions/common/registry_key.h"

#include <windows.h>
#include <msi.h>

#include <string>
#include <string_view>

// The suite's property handler, registered and removed for the whole machine. Everything goes through the
// ANSI registry functions; what happened to a single extension is told on standard output, start and end in
// the installer's log.
namespace custom_actions {

// Registers the handler for each of PROPERTY_HANDLER_EXTENSIONS, with the detail lists of those that had
// none, and adds the extra properties to the lists of EXTENDED_DETAILS_EXTENSIONS. A failure never fails the
// installation: with a session the result is ERROR_SUCCESS always, without one ERROR_INSTALL_FAILURE where a
// registration failed. Throws std::bad_alloc alone.
UINT register_property_handler(MSIHANDLE session);

// Undoes that: every extension that carries the suite's handler gets its former one back, or loses the key,
// and loses the detail lists that are still the suite's own. Returns ERROR_INSTALL_FAILURE if the handlers'
// key is there and cannot be opened, or if an extension's key cannot be deleted; everything else that fails
// is passed over. Throws std::bad_alloc alone.
UINT remove_property_handler(MSIHANDLE session);

// The paths of an extension's handler and of its detail lists, below HKEY_LOCAL_MACHINE.
std::string property_handler_path(std::string_view extension);
std::string file_association_path(std::string_view extension);

// Whether the machine's handler of `extension` is the suite's; false where it cannot be read.
bool is_our_property_handler(std::string_view extension);

// Puts the suite's handler in the place of another one, which is kept in "OriginalPropertyHandler" unless an
// earlier backup is there or that cannot be told. `view` is native_registry_view(). Writes a line on standard
// output if the key cannot be opened or the handler not written. A backup that cannot be written holds
// nothing up.
void override_property_handler(std::string_view extension, REGSAM view);

// Writes the three detail lists of `extension`; stops at the first that fails and returns false.
bool write_details_lists(std::string_view extension);

// Deletes the value if its text (of at most 4096 bytes) is exactly `expected` and not empty; whether it did.
bool delete_value_if_matches(const registry_key& key, const char* name, std::string_view expected);

// Whether these bytes are a handler at all: more than a terminating zero.
bool is_handler(const std::string& bytes) noexcept;

// A detail list as text, whatever its type; empty if it is not there or cannot be read into `limit` bytes.
std::string read_details_list(const registry_key& key, const char* name, DWORD limit);

// Writes "[propertyhandler] <text>" as a line on standard output.
void log_property_handler(const std::string& text);

// Writes a line on standard output.
void write_console_line(const std::string& text);

} // namespace custom_actions
