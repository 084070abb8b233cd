#include "tests/support/powershell_stand_in.h"

#include "package/toy_suite/powershell/packages.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"

#include <filesystem>
#include <stdexcept>

namespace test_support {
namespace {

namespace fs = std::filesystem;
using toy_powershell::state_key;

constexpr const wchar_t* STATE = L"Software\\QuorbelStandIn\\PowerShell";

} // namespace

powershell_stand_in::powershell_stand_in()
{
    if (!machine_is_disposable()) {
        throw std::runtime_error{"takes PowerShell's place: set DISPOSABLE_MACHINE where that may be"};
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, STATE);
    if (!fs::exists(set_aside_)) { // a process that was ended may have left it there
        fs::rename(place_, set_aside_);
    }
    fs::copy_file(beside_this_program(L"toy_powershell.exe"), place_, fs::copy_options::overwrite_existing);
}

powershell_stand_in::~powershell_stand_in()
{
    std::error_code ignored; // the next one finds it set aside
    fs::rename(set_aside_, place_, ignored);
    RegDeleteTreeW(HKEY_CURRENT_USER, STATE);
}

void powershell_stand_in::tell_nothing() const
{
    for (const std::wstring& order : orders_) {
        RegDeleteKeyValueW(HKEY_CURRENT_USER, STATE, order.c_str());
    }
}

std::vector<std::wstring> powershell_stand_in::scripts() const
{
    const state_key key{L"Scripts"};
    std::vector<std::wstring> given;
    while (const auto script = key.text(std::to_wstring(given.size() + 1).c_str())) {
        given.push_back(*script);
    }
    return given;
}

void powershell_stand_in::register_package(const std::wstring& name, const std::wstring& version) const
{
    const toy_powershell::package_identity identity{
        .name = name, .publisher = L"CN=Brenmoor", .version = version};
    const state_key key{LR"(Packages\)" + full_package_name(identity)};
    key.write(L"Name", name);
    key.write(L"Publisher", identity.publisher);
    key.write(L"Version", version);
    key.write(L"Status", L"Ok");
}

std::vector<std::wstring> powershell_stand_in::packages() const
{
    std::vector<std::wstring> told;
    for (const std::wstring& name : state_key{L"Packages"}.subkeys()) {
        const state_key key{LR"(Packages\)" + name};
        std::wstring& line = told.emplace_back();
        for (const wchar_t* value : {L"Name", L"Version", L"Status", L"ExternalLocation"}) {
            line += (line.empty() ? L"" : L" ") + key.text(value).value_or(L"-");
        }
    }
    return told;
}

} // namespace test_support
