#include "package/toy_suite/powershell/packages.h"

#include "package/toy_suite/powershell/archive.h"
#include "package/toy_suite/powershell/state.h"
#include "package/toy_suite/powershell/text.h"
#include "package/toy_suite/powershell/wildcards.h"

#include <cstdint>
#include <stdexcept>

namespace toy_powershell {
namespace {

constexpr const wchar_t* PACKAGES = L"Packages";

std::wstring package_key(const std::wstring& full_name)
{
    return std::wstring{PACKAGES} + L'\\' + full_name;
}

// The value of an attribute of the manifest's identity. Throws if it has character references.
std::wstring attribute(const std::string& element, const std::string& name)
{
    const std::size_t start = element.find(' ' + name + "=\"");
    if (start == std::string::npos) {
        throw std::runtime_error{"The manifest's identity has no " + name};
    }
    const std::size_t value = start + name.size() + 3;
    const std::string text = element.substr(value, element.find('"', value) - value);
    if (text.find('&') != std::string::npos) {
        throw std::runtime_error{"The manifest's identity is not understood: " + text};
    }
    return widen(text);
}

// A fake of the publisher's hash in package names.
std::wstring publisher_id(const std::wstring& publisher)
{
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const wchar_t unit : publisher) {
        hash = (hash ^ unit) * 0x100000001B3U;
    }
    std::wstring id;
    for (int i = 0; i != 13; ++i, hash /= 32) {
        id += L"0123456789abcdefghjkmnpqrstvwxyz"[hash % 32];
    }
    return id;
}

// True if both are versions of the same package.
bool same_family(const std::wstring& full_name, const package_identity& identity)
{
    return full_name.starts_with(identity.name + L'_') &&
           full_name.ends_with(L"_x64__" + publisher_id(identity.publisher));
}

} // namespace

package_identity read_identity(const std::filesystem::path& package)
{
    const std::string manifest = read_archive_entry(package, "AppxManifest.xml");
    const std::size_t start = manifest.find("<Identity ");
    if (start == std::string::npos || manifest.find("<Package") > start) {
        throw std::runtime_error{"The manifest has no identity"};
    }
    const std::string element = manifest.substr(start, manifest.find('>', start) - start);
    return {
        .name = attribute(element, "Name"),
        .publisher = attribute(element, "Publisher"),
        .version = attribute(element, "Version")};
}

std::wstring full_package_name(const package_identity& identity, const std::wstring& architecture)
{
    return identity.name + L'_' + identity.version + L'_' + architecture + L"__" +
           publisher_id(identity.publisher);
}

std::vector<registered_package> registered_packages()
{
    std::vector<registered_package> found;
    for (const std::wstring& full_name : state_key{PACKAGES}.subkeys()) {
        const state_key key{package_key(full_name)};
        found.push_back(
            {.full_name = full_name,
             .identity =
                 {.name = key.text(L"Name").value_or(L""),
                  .publisher = key.text(L"Publisher").value_or(L""),
                  .version = key.text(L"Version").value_or(L"")},
             .status = key.text(L"Status").value_or(L"")});
    }
    return found;
}

std::vector<registered_package> packages_named(const std::wstring& name)
{
    std::vector<registered_package> found = registered_packages();
    std::erase_if(found, [&](const registered_package& package) {
        return !equal_ignoring_case(package.identity.name, name);
    });
    return found;
}

std::vector<registered_package> packages_of(const package_identity& identity)
{
    std::vector<registered_package> found = packages_named(identity.name);
    std::erase_if(found, [&](const registered_package& package) {
        return !equal_ignoring_case(package.identity.publisher, identity.publisher);
    });
    return found;
}

void add_package(const std::wstring& path, const std::wstring& external_location)
{
    if (ordered(L"FailAdd", path)) {
        throw std::runtime_error{"Add-AppxPackage : Deployment failed with HRESULT: 0x80073CF9"};
    }
    const package_identity identity = read_identity(path_named_by(path));
    if (!std::filesystem::is_directory(external_location)) {
        throw std::runtime_error{"Add-AppxPackage : Cannot find path '" + narrow(external_location) + "'"};
    }
    for (const registered_package& before : packages_of(identity)) {
        if (same_family(before.full_name, identity)) {
            remove_package(before);
        }
    }
    register_package(identity, external_location);
}

void register_package(const package_identity& identity, const std::wstring& external_location)
{
    const state_key key{package_key(full_package_name(identity))};
    key.write(L"Name", identity.name);
    key.write(L"Publisher", identity.publisher);
    key.write(L"Version", identity.version);
    key.write(L"Status", std::wstring{L"Ok"});
    key.write(L"ExternalLocation", external_location);
}

void remove_package(const registered_package& package)
{
    if (!ordered(L"KeepPackage", package.full_name)) {
        state_key{PACKAGES}.remove_subkey(package.full_name);
    }
}

} // namespace toy_powershell
