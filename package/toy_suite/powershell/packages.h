#pragma once

#include <filesystem>
#include <string>
#include <vector>

// The packages that are registered for the user: a key each below the state's key "Packages", by full name.
namespace toy_powershell {

struct package_identity {
    std::wstring name;
    std::wstring publisher;
    std::wstring version;
};

// What the manifest in a package says of it. Throws std::runtime_error.
package_identity read_identity(const std::filesystem::path& package);

// How the system names a registered package.
std::wstring full_package_name(const package_identity& identity, const std::wstring& architecture = L"x64");

struct registered_package {
    std::wstring full_name;
    package_identity identity;
    std::wstring status;
};

// All of them, in the order of their full names.
std::vector<registered_package> registered_packages();

// Get-AppxPackage -Name.
std::vector<registered_package> packages_named(const std::wstring& name);

// Those of them that are this publisher's.
std::vector<registered_package> packages_of(const package_identity& identity);

// Add-AppxPackage -ForceUpdateFromAnyVersion: takes the place of whatever version of the package is
// registered. The path is a pattern (wildcards.h). Throws std::runtime_error.
void add_package(const std::wstring& path, const std::wstring& external_location);

// Registers a package beside whatever is.
void register_package(const package_identity& identity, const std::wstring& external_location);

// Remove-AppxPackage.
void remove_package(const registered_package& package);

} // namespace toy_powershell
