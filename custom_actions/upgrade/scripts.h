#pragma once

#include "custom_actions/upgrade/context.h"

#include <string>
#include <string_view>

// The scripts that the upgrade runs as the user. They are texts alone; run_powershell runs them.
namespace custom_actions::controlled_upgrade {

// What the capture script prints of the user's registrations of a package: one of the first two, and the
// third where what is registered is not the package as it was installed.
inline constexpr std::string_view REGISTERED_OUTPUT = "QBL_REGISTERED";
inline constexpr std::string_view ABSENT_OUTPUT = "QBL_ABSENT";
inline constexpr std::string_view NORMALIZED_OUTPUT = "QBL_RECOVERY_NORMALIZES_REGISTRATION";

// Tells how the package of this archive is registered for the user.
std::wstring capture_script(std::wstring_view archive);

// Registers the archive's package, whatever version is there, and fails where it is not then registered once
// and in order. `product_directory` is the place of its files.
std::wstring registration_script(std::wstring_view archive, std::wstring_view product_directory);

// Removes the archive's package, in every version, and fails where one is left.
std::wstring removal_script(std::wstring_view archive);

// Saves which folder windows are open, in the context's folder list.
std::wstring capture_folders_script(const context& context);

// Opens the saved folder windows that are not open, starts the helper service where `with_helper`, starts the
// tray, and fails where that is not there 15 seconds later.
std::wstring restore_runtime_script(const context& context, bool with_helper);

// Has the main program show what is new.
std::wstring whats_new_script(const context& context);

} // namespace custom_actions::controlled_upgrade
