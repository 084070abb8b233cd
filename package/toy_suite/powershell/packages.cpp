#include "package/toy_suite/powershell/packages.h"

#include "package/toy_suite/powershell/files.h"
#include "package/toy_suite/powershell/state.h"
#include "package/toy_suite/powershell/text.h"

#include <algorithm>
#include <regex>
#include <stdexcept>

namespace toy_powershell {
namespace {

constexpr const wchar_t* PACKAGES = L"Packages";

state_key package_key(const std::wstring& full_name)
{
    return state_key{std::wstring{PACKAGES} + L'\\' + full_name};
}

} // namespace

package_identity read_identity(const std::filesystem::path& package)
{
    const std::regex identity{R"re(<Identity Name="([\w.]+)" Publisher="([\w=]+)" Version="([\d.]+)")re"};
    const std::string manifest = read_manifest(package);
    std::smatch found;
    if (!std::regex_search(manifest, found, identity)) {
        throw std::runtime_error{"The manifest has no identity, or one that is not understood"};
    }
    const auto text = [&](std::size_t group) {
        return std::wstring{found[group].first, found[group].second};
    };
    return {.name = text(1), .publisher = text(2), .version = text(3)};
}

std::vector<registered_package> registered_packages()
{
    std::vector<registered_package> found;
    for (const std::wstring& full_name : state_key{PACKAGES}.subkeys()) {
        const state_key key = package_key(full_name);
        const auto text = [&](const wchar_t* name) { return key.text(name).value_or(L""); };
        found.push_back(
            {.full_name = full_name,
             .identity =
                 {.name = text(L"Name"), .publisher = text(L"Publisher"), .version = text(L"Version")},
             .status = text(L"Status")});
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
    std::ranges::for_each(packages_of(identity), remove_package);
    register_package(identity, external_location);
}

void register_package(const package_identity& identity, const std::wstring& external_location)
{
    const state_key key = package_key(identity.name + L'_' + identity.version + L'_' + identity.publisher);
    key.write(L"Name", identity.name);
    key.write(L"Publisher", identity.publisher);
    key.write(L"Version", identity.version);
    key.write(L"Status", std::wstring{L"Ok"});
    key.write(L"ExternalLocation", external_location);
}

void remove_package(const registered_package& package)
{
    state_key{PACKAGES}.remove_subkey(package.full_name);
}

} // namespace toy_powershell
