#pragma once

#include "custom_actions/common/system_directory.h"
#include "package/toy_suite/powershell/state.h"

#include <windows.h>

#include <string>

namespace test_support {

// Replaces the system's PowerShell with the toy suite's stand-in until the scope ends. Starts without orders
// (listed in package/toy_suite/powershell/state.h), packages and folder windows. Only one may exist at a time
// on the machine.
class powershell_stand_in {
public:
    // Throws std::runtime_error if the machine is not disposable, std::system_error if a move fails.
    powershell_stand_in();
    ~powershell_stand_in();

    powershell_stand_in(const powershell_stand_in&) = delete;
    powershell_stand_in& operator=(const powershell_stand_in&) = delete;

    // Examples: set_order(L"Fail", L"install-3"), set_order(L"Die", L"17 capture").
    void set_order(const wchar_t* order, const std::wstring& text) const
    {
        toy_powershell::state_key{toy_powershell::ORDERS}.write(order, text);
    }

    void clear_orders() const { toy_powershell::state_key{}.remove_subkey(toy_powershell::ORDERS); }

    // The scripts that it ran, by number: "1", "2", ...
    [[nodiscard]] auto scripts() const { return toy_powershell::state_key{L"Scripts"}.texts(); }

    // The input that it did not understand; empty if there was none.
    [[nodiscard]] auto refused() const { return toy_powershell::state_key{}.text(L"Refused").value_or(L""); }

private:
    std::wstring place_ = custom_actions::system_directory("no system directory") +
                          LR"(\WindowsPowerShell\v1.0\powershell.exe)";
    std::wstring set_aside_ = place_ + L".of-the-system"; // the name that the demo uses
};

} // namespace test_support
