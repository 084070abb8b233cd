#pragma once

#include <string>
#include <string_view>

// The PowerShell commands that register and remove a sparse package: an MSIX package whose files stay in the
// installation folder.
namespace custom_actions {

// The command that registers the package file `msix`, an absolute path, with its own folder as the place of
// its files.
std::wstring install_package_command(std::wstring_view msix);

// Whether `name` has none but the characters that the name of a package's identity may have.
bool is_package_name(std::wstring_view name) noexcept;

// The command that removes every package of this name that the user has, and fails where one is left. `name`
// must be a package name.
std::wstring uninstall_package_command(std::wstring_view name);

} // namespace custom_actions
