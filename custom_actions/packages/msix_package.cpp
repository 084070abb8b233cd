#include "custom_actions/packages/msix_package.h"

#include "custom_actions/common/path.h"
#include "custom_actions/packages/hidden_process.h"
#include "custom_actions/packages/powershell.h"

#include <string>

namespace custom_actions {
namespace {

constexpr DWORD DATA_SIZE = 260; // characters
constexpr const wchar_t* POWERSHELL = L"powershell.exe -NoProfile -ExecutionPolicy Bypass -Command \"";

// CustomActionData. Empty, after an error, if it cannot be read, is empty or does not fit.
std::wstring read_data(const action_log& log)
{
    std::wstring data;
    try {
        data = read_short_property<DATA_SIZE>(log.session(), L"CustomActionData", "Cannot read package data");
    } catch (const windows_error&) { // NOLINT(bugprone-empty-catch): the same as no data
    }
    if (data.empty()) {
        log.error(L"Failed to get custom action data");
    }
    return data;
}

std::wstring install_command(std::wstring_view msix)
{
    std::wstring command = POWERSHELL;
    command.append(L"Add-AppxPackage -Path ")
        .append(quote_powershell_literal(msix))
        .append(L" -ExternalLocation ")
        .append(quote_powershell_literal(parent_folder(msix)))
        .append(L" -ForceUpdateFromAnyVersion -DeferRegistrationWhenPackagesAreInUse -ErrorAction Stop\"");
    return command;
}

std::wstring uninstall_command(std::wstring_view name)
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

UINT run_command(const std::wstring& command, const action_log& log)
{
    log.line(L"about to run: " + command);
    const process_output result = run_hidden_process(command);
    if (!result.output.empty()) {
        log.line(L"PowerShell Output: " + result.output);
    }
    if (!result.error.empty()) {
        log.error(L"PowerShell Error: " + result.error);
    }
    log.line(L"ran command - result exitCode: " + std::to_wstring(result.exit_code));
    return result.exit_code == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace

bool is_package_name(std::wstring_view name) noexcept
{
    return name.find_first_not_of(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-") ==
           std::wstring_view::npos;
}

UINT install_msix_package(const action_log& log)
{
    log.line(L"Starting InstallMsixPackage...");
    const std::wstring msix = read_data(log);
    if (msix.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    log.line(L"Install path: " + std::wstring{parent_folder(msix)});
    log.line(L"MSIX fullpath: " + msix);
    return run_command(install_command(msix), log);
}

UINT uninstall_msix_package(const action_log& log)
{
    log.line(L"Starting UninstallMsixPackage...");
    const std::wstring name = read_data(log);
    if (name.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    log.line(L"MSIX fullpath: " + name); // a name, in fact; support knows the line as it is
    if (!is_package_name(name)) {
        return ERROR_INVALID_PARAMETER;
    }
    return run_command(uninstall_command(name), log);
}

} // namespace custom_actions
