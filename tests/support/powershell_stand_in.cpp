#include "tests/support/powershell_stand_in.h"

#include "package/toy_suite/powershell/packages.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"

#include <filesystem>
#include <stdexcept>

namespace test_support {

namespace fs = std::filesystem;

powershell_stand_in::powershell_stand_in()
{
    if (!machine_is_disposable()) {
        throw std::runtime_error{"takes PowerShell's place: set DISPOSABLE_MACHINE where that may be"};
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
    if (!fs::exists(set_aside_)) { // a process that was ended may have left it there
        fs::rename(place_, set_aside_);
    }
    fs::copy_file(beside_this_program(L"toy_powershell.exe"), place_, fs::copy_options::overwrite_existing);
}

powershell_stand_in::~powershell_stand_in()
{
    std::error_code ignored; // the next one finds it set aside
    fs::rename(set_aside_, place_, ignored);
    RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
}

void powershell_stand_in::register_package(const std::wstring& name, const std::wstring& version) const
{
    toy_powershell::register_package({.name = name, .publisher = L"CN=Brenmoor", .version = version}, L"");
}

std::vector<std::wstring> registered_packages()
{
    std::vector<std::wstring> told;
    for (const auto& package : toy_powershell::registered_packages()) {
        told.push_back(package.identity.name + L' ' + package.identity.version + L' ' + package.status);
    }
    return told;
}

} // namespace test_support
