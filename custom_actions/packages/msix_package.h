#pragma once

#include "custom_actions/common/installer_session.h"

#include <string_view>

// The bodies of the two actions for sparse packages: MSIX packages whose files stay in the installation
// folder. Each runs one PowerShell command as the caller and logs what it printed. They return ERROR_SUCCESS
// if the command's exit code is 0, ERROR_INVALID_PARAMETER if "CustomActionData" cannot be used, and
// ERROR_INSTALL_FAILURE otherwise; they throw what run_hidden_process throws.
namespace custom_actions {

// Registers the package file that "CustomActionData" names, with its own folder as the place of its files.
UINT install_msix_package(const action_log& log);

// Removes every package of the user's with the name in "CustomActionData".
UINT uninstall_msix_package(const action_log& log);

// Whether `name` has only characters that a package's identity may have: ASCII letters and digits, full stops
// and hyphens. It then needs no quoting in a command.
bool is_package_name(std::wstring_view name) noexcept;

} // namespace custom_actions
