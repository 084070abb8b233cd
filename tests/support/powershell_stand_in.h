#pragma once

#include "custom_actions/common/system_directory.h"
#include "package/toy_suite/powershell/packages.h"
#include "package/toy_suite/powershell/state.h"
#include "support/child_process.h"

#include <windows.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace test_support {

// Replaces the system's PowerShell with the toy suite's stand-in until the scope ends. Starts without orders
// (listed in package/toy_suite/powershell/state.h), packages and folder windows. The machine must be
// disposable, and only one may exist at a time on it.
class powershell_stand_in {
public:
    // Throws std::system_error if a file cannot be moved or copied.
    powershell_stand_in()
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
        if (!exists(set_aside_)) { // a killed process may have left it there
            rename(place_, set_aside_);
        }
        const std::filesystem::path stand_in = beside_this_program(L"toy_powershell.exe");
        copy_file(stand_in, place_, std::filesystem::copy_options::overwrite_existing);
    }

    ~powershell_stand_in()
    {
        std::error_code ignored; // the next stand-in finds it set aside
        rename(set_aside_, place_, ignored);
        RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
    }

    powershell_stand_in(const powershell_stand_in&) = delete;
    powershell_stand_in& operator=(const powershell_stand_in&) = delete;

    // The input that it did not understand; empty if there was none.
    [[nodiscard]] auto refused() const { return toy_powershell::state_key{}.text(L"Refused").value_or(L""); }

private:
    std::filesystem::path place_ = custom_actions::system_directory("no system directory") +
                                   LR"(\WindowsPowerShell\v1.0\powershell.exe)";
    std::filesystem::path set_aside_ = place_.wstring() + L".of-the-system"; // the name that the demo uses
};

} // namespace test_support
