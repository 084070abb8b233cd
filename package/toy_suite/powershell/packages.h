#pragma once

#include <filesystem>
#include <string>
#include <vector>

// The user's registered packages: one key each, by full name, below the state's key "Packages".
namespace toy_powershell {

struct package_identity {
    std::wstring name;
    std::wstring publisher;
    std::wstring version;
};

// The identity in a package's manifest. Throws std::runtime_error.
package_identity read_identity(const std::filesystem::path& package);

struct registered_package {
    std::wstring full_name; // the stand-in's own; the real one has a hash of the publisher
    package_identity identity;
    std::wstring status;
};

// All packages, sorted by full name.
std::vector<registered_package> registered_packages();

// Get-AppxPackage -Name.
std::vector<registered_package> packages_named(const std::wstring& name);

// The packages with this name and publisher.
std::vector<registered_package> packages_of(const package_identity& identity);

// Add-AppxPackage -ForceUpdateFromAnyVersion: replaces every registered version of the package. The path is a
// pattern (files.h). Throws std::runtime_error.
void add_package(const std::wstring& path, const std::wstring& external_location);

// Registers a package and leaves all others registered.
void register_package(const package_identity& identity, const std::wstring& external_location);

// Remove-AppxPackage.
void remove_package(const registered_package& package);

} // namespace toy_powershell
