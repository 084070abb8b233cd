#pragma once

#include "custom_actions/upgrade/context.h"

#include <string>

// The folder in which one upgrade keeps its saved packages, its scripts' output and its markers: files whose
// existence records that a step happened. Later phases, which may run in other processes, decide on them. The
// folder is never removed.
namespace custom_actions::controlled_upgrade {

namespace marker {
inline constexpr const wchar_t* BACKUP_COMPLETE = L"backup-complete";
inline constexpr const wchar_t* HELPER_RUNNING = L"helper-running";
inline constexpr const wchar_t* SEARCH_RUNNING = L"search-running";
inline constexpr const wchar_t* SEARCH_START_TYPE = L"search-start-type-"; // and the type
inline constexpr const wchar_t* SEARCH_DELAYED_START = L"search-delayed-start";
inline constexpr const wchar_t* SHUTDOWN_STARTED = L"shutdown-started";
inline constexpr const wchar_t* REGISTERED = L"registered-"; // and the package's index
inline constexpr const wchar_t* PACKAGES_TOUCHED = L"packages-touched";
inline constexpr const wchar_t* PACKAGES_VERIFIED = L"packages-verified";
inline constexpr const wchar_t* COMMITTED = L"committed";
inline constexpr const wchar_t* ROLLBACK_COMPLETE = L"rollback-complete";
} // namespace marker

// What the user may do in a secure directory; the system and the administrators may do everything.
enum class user_access { read, full };

// Makes a new directory with an access list of its own, which everything made in it inherits. Throws
// windows_error "Cannot secure recovery directory" or, also if the name is taken, "Cannot create unique
// recovery directory".
void create_secure_directory(const std::wstring& path, const std::wstring& user_sid, user_access access);

// A workspace is believed, and written to, only if it is ours: a real folder that belongs to the system, the
// administrators or the user of this process. Anybody could have made another one under its name.

// Makes the marker; never writes through a link. Throws windows_error "Cannot persist upgrade recovery
// state", also if the workspace is missing or not ours, and what has_marker throws.
void write_marker(const context& context, const std::wstring& name);

// False for every marker if the workspace is missing or not ours. Throws windows_error "Cannot read upgrade
// recovery state" if that or the marker cannot be determined, and what token_user_sid throws.
bool has_marker(const context& context, const std::wstring& name);

// The list of the folder windows that were open, which the user's scripts write and read.
std::wstring folder_list_path(const context& context);

} // namespace custom_actions::controlled_upgrade
