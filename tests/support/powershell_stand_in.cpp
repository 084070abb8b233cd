#include "tests/support/powershell_stand_in.h"

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

} // namespace test_support
