#pragma once

#include "custom_actions/upgrade/context.h"

#include <string>
#include <string_view>
#include <vector>

// The scripts that run as the user, as texts.
namespace custom_actions::controlled_upgrade {

// What the capture script prints about the user's registrations of a package: one of the first two, and the
// third as well if what is registered is not the package as it was installed.
inline constexpr std::string_view REGISTERED_OUTPUT = "QBL_REGISTERED";
inline constexpr std::string_view ABSENT_OUTPUT = "QBL_ABSENT";
inline constexpr std::string_view NORMALIZED_OUTPUT = "QBL_RECOVERY_NORMALIZES_REGISTRATION";

// Prints how the archive's package is registered for the user.
std::wstring capture_script(std::wstring_view archive);

// Registers the archive's package, whatever version is there, and fails unless it is then registered once and
// healthy. `product_directory` is the place of its files.
std::wstring registration_script(std::wstring_view archive, std::wstring_view product_directory);

// Removes the archive's package, in every version, and fails if one is left.
std::wstring removal_script(std::wstring_view archive);

// Saves the open folder windows in the context's folder list.
std::wstring capture_folders_script(const context& context);

// Opens the saved folder windows that are not open, starts the helper service if `with_helper`, starts the
// tray, and fails if the tray does not run 15 seconds later.
std::wstring restore_runtime_script(const context& context, bool with_helper);

// Opens the main program's What's new page.
std::wstring whats_new_script(const context& context);

// Starts each of these programs that exists and does not run yet in the script's session.
std::wstring recovery_script(const std::vector<std::wstring>& programs);

} // namespace custom_actions::controlled_upgrade
