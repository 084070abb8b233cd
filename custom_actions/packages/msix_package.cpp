#include "custom_actions/packages/msix_package.h"

#include "custom_actions/common/path.h"
#include "custom_actions/packages/powershell.h"

namespace custom_actions {
namespace {

constexpr const wchar_t* POWERSHELL = L"powershell.exe -NoProfile -ExecutionPolicy Bypass -Command \"";

} // namespace

std::wstring install_package_command(std::wstring_view msix)
{
    std::wstring command = POWERSHELL;
    command.append(L"Add-AppxPackage -Path ")
        .append(quote_powershell_literal(msix))
        .append(L" -ExternalLocation ")
        .append(quote_powershell_literal(parent_folder(msix)))
        .append(L" -ForceUpdateFromAnyVersion -DeferRegistrationWhenPackagesAreInUse -ErrorAction Stop\"");
    return command;
}

bool is_package_name(std::wstring_view name) noexcept
{
    return name.find_first_not_of(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-") ==
           std::wstring_view::npos;
}

std::wstring uninstall_package_command(std::wstring_view name)
{
    std::wstring command = POWERSHELL;
    command.append(L"$ErrorActionPreference='Stop'; try { Get-AppxPackage -Name '")
        .append(name)
        .append(
            L"' | ForEach-Object { Remove-AppxPackage -Package $_.PackageFullName -ErrorAction Stop }; if "
            L"(Get-AppxPackage -Name '")
        .append(name)
        .append(L"') { throw 'Package remains registered after removal' }; exit 0 } catch { Write-Error $_ "
                L"-ErrorAction Continue; exit 1 }\"");
    return command;
}

} // namespace custom_actions
