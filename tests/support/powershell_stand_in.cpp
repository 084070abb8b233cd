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
        throw std::runtime_error{"replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed"};
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
    if (!fs::exists(set_aside_)) { // a killed process may have left it there
        fs::rename(place_, set_aside_);
    }
    fs::copy_file(beside_this_program(L"toy_powershell.exe"), place_, fs::copy_options::overwrite_existing);
}

powershell_stand_in::~powershell_stand_in()
{
    std::error_code ignored; // the next stand-in finds it set aside
    fs::rename(set_aside_, place_, ignored);
    RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
}

std::vector<std::wstring> registered_packages()
{
    std::vector<std::wstring> packages;
    for (const auto& package : toy_powershell::registered_packages()) {
        packages.push_back(package.identity.name + L' ' + package.identity.version + L' ' + package.status);
    }
    return packages;
}

} // namespace test_support
