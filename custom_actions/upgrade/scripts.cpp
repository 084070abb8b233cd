#include "custom_actions/upgrade/scripts.h"

#include "custom_actions/common/path.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/upgrade/workspace.h"

namespace custom_actions::controlled_upgrade {
namespace {

// Reads the identity in the archive's manifest into $id.
std::wstring manifest_reader(std::wstring_view archive)
{
    std::wstring script =
        L"Add-Type -AssemblyName System.IO.Compression.FileSystem; $zip=[IO.Compression.ZipFile]::OpenRead(";
    script.append(quote_powershell_literal(archive))
        .append(L"); try { $reader=[IO.StreamReader]::new($zip.GetEntry('AppxManifest.xml').Open()); try { "
                L"[xml]$manifest=$reader.ReadToEnd() } finally { $reader.Dispose() } } finally { "
                L"$zip.Dispose() }; "
                L"$id=$manifest.Package.Identity; ");
    return script;
}

std::wstring start_program(const context& context, std::wstring_view program)
{
    return L"Start-Process -FilePath " +
           quote_powershell_literal(join_path(context.product_directory, program));
}

} // namespace

std::wstring capture_script(std::wstring_view archive)
{
    return manifest_reader(archive) +
           L"$old=@(Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher); if "
           L"($old.Count) "
           L"{ Write-Output 'QBL_REGISTERED'; $old | Select-Object Name,Version,Status | Format-List; if "
           L"($old.Count -ne 1 -or $old[0].Version -ne [version]$id.Version -or [string]$old[0].Status -ne "
           L"'Ok') { Write-Output 'QBL_RECOVERY_NORMALIZES_REGISTRATION' } } else { Write-Output "
           L"'QBL_ABSENT' }";
}

std::wstring registration_script(std::wstring_view archive, std::wstring_view product_directory)
{
    std::wstring script = manifest_reader(archive);
    script.append(L"Add-AppxPackage -Path ")
        .append(quote_powershell_literal(archive))
        .append(L" -ExternalLocation ")
        .append(quote_powershell_literal(product_directory))
        .append(
            L" -ForceUpdateFromAnyVersion -ErrorAction Stop; $registered=@(Get-AppxPackage -Name $id.Name | "
            L"Where-Object { $_.Publisher -eq $id.Publisher -and $_.Version -eq [version]$id.Version }); if "
            L"($registered.Count -ne 1 -or [string]$registered[0].Status -ne 'Ok') { throw ('Package "
            L"verification failed: '+$id.Name) }; ");
    return script;
}

std::wstring removal_script(std::wstring_view archive)
{
    return manifest_reader(archive) +
           L"Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher | Remove-AppxPackage "
           L"-ErrorAction Stop; if (Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq "
           L"$id.Publisher) { throw 'Rollback package removal failed' }; ";
}

std::wstring capture_folders_script(const context& context)
{
    return LR"($shell=New-Object -ComObject Shell.Application; @($shell.Windows() | ForEach-Object { if ()"
           LR"($_.FullName -like '*\explorer.exe' -and $_.LocationURL -like 'file:*') { $_.LocationURL } }) )"
           LR"(| Export-Clixml -LiteralPath )" +
           quote_powershell_literal(folder_list_path(context));
}

std::wstring restore_runtime_script(const context& context, bool with_helper)
{
    std::wstring script = L"$file=";
    script.append(quote_powershell_literal(folder_list_path(context)))
        .append(L"; if (Test-Path -LiteralPath $file) { $shell=New-Object -ComObject Shell.Application; "
                L"$open=@($shell.Windows() | ForEach-Object LocationURL); foreach ($url in (Import-Clixml "
                L"-LiteralPath $file)) { if ($url -is [string] -and $url -like 'file:*' -and $url -notin "
                L"$open) { "
                L"$shell.Explore($url) } } }; ");
    if (with_helper) {
        script.append(start_program(context, HELPER_PROGRAM)).append(L"; ");
    }
    script.append(start_program(context, TRAY_PROGRAM))
        .append(
            L"; $deadline=(Get-Date).AddSeconds(15); do { Start-Sleep -Milliseconds 250; $tray=Get-Process "
            L"Quorbel.SystemTray -ErrorAction SilentlyContinue | Where-Object SessionId -eq ")
        .append(std::to_wstring(context.session_id))
        .append(
            L" } until ($tray -or (Get-Date) -gt $deadline); if (!$tray) { throw 'Tray did not return' }");
    return script;
}

std::wstring whats_new_script(const context& context)
{
    return start_program(context, MAIN_PROGRAM) + L" -ArgumentList '--open-tab=what-new'";
}

std::wstring recovery_script(const std::vector<std::wstring>& programs)
{
    std::wstring script =
        L"$ErrorActionPreference='Stop'; $session=(Get-Process -Id $PID).SessionId; foreach($path in @(";
    for (const std::wstring& program : programs) {
        script.append(&program == programs.data() ? L"" : L",").append(quote_powershell_literal(program));
    }
    return script.append(
        L")) { $name=[IO.Path]::GetFileNameWithoutExtension($path); $running=@(Get-Process -Name $name "
        L"-ErrorAction SilentlyContinue | Where-Object { $_.SessionId -eq $session -and $_.Path -eq $path "
        L"}); "
        L"if (!$running.Count -and (Test-Path -LiteralPath $path)) { Start-Process -FilePath $path "
        L"-WorkingDirectory ([IO.Path]::GetDirectoryName($path)) | Out-Null } }");
}

} // namespace custom_actions::controlled_upgrade
