#pragma once

#include "custom_actions/common/system_directory.h"
#include "package/toy_suite/powershell/state.h"

#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace test_support {

// The toy suite's stand-in for PowerShell in the place of the system's own, which is set aside, until the
// scope ends. package/toy_suite/powershell/state.h tells what it can be told. It knows nothing at first: no
// orders, no packages, no folder windows. One can live at a time on the whole machine.
class powershell_stand_in {
public:
    // Throws std::runtime_error where the machine may not be changed, std::system_error where it cannot be.
    powershell_stand_in();
    ~powershell_stand_in();

    powershell_stand_in(const powershell_stand_in&) = delete;
    powershell_stand_in& operator=(const powershell_stand_in&) = delete;

    // An order, as in set_order(L"Fail", L"install-3") or set_order(L"Die", L"17 capture").
    void set_order(const wchar_t* order, const std::wstring& text) const
    {
        toy_powershell::state_key{toy_powershell::ORDERS}.write(order, text);
    }

    // Takes back every order, and nothing else.
    void clear_orders() const { toy_powershell::state_key{}.remove_subkey(toy_powershell::ORDERS); }

    // The scripts that it was given, by their numbers: "1", "2", ...
    [[nodiscard]] std::map<std::wstring, std::wstring> scripts() const
    {
        return toy_powershell::state_key{L"Scripts"}.texts();
    }

    // What it did not understand; empty where that was never so.
    [[nodiscard]] std::wstring refused() const
    {
        return toy_powershell::state_key{}.text(L"Refused").value_or(L"");
    }

    // A package of CN=Brenmoor, registered beside whatever is, which takes part in updates as ours do.
    void register_package(const std::wstring& name, const std::wstring& version) const;

    // The open folder windows, by their addresses.
    void open_folders(const std::vector<std::wstring>& urls) const
    {
        toy_powershell::state_key{}.write(L"OpenFolders", urls);
    }

    [[nodiscard]] std::vector<std::wstring> folders() const
    {
        return toy_powershell::state_key{}.list(L"OpenFolders");
    }

private:
    std::wstring place_ = custom_actions::system_directory("no system directory") +
                          LR"(\WindowsPowerShell\v1.0\powershell.exe)";
    std::wstring set_aside_ = place_ + L".of-the-system"; // as the demo calls it
};

// Each package that is registered with the stand-in, in the order of their names: "Sorvane.Icon 1.5.0.0 Ok".
std::vector<std::wstring> registered_packages();

} // namespace test_support
