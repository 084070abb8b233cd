#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

std::vector<std::wstring> scripts(const std::wstring& folder, const std::wstring& workspace)
{
    const context upgrade{
        .product_directory = folder, .workspace = workspace, .session_id = 42, .user_sid = L"S-1-5-18"};
    const std::wstring archive = workspace + L"\\a.msix";
    return {
        capture_script(archive),
        registration_script(archive, folder),
        removal_script(archive),
        capture_folders_script(upgrade),
        restore_runtime_script(upgrade, true),
        whats_new_script(upgrade)};
}

std::wstring replaced(std::wstring text, const std::wstring& from, const std::wstring& to)
{
    for (std::size_t at = text.find(from); at != std::wstring::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// What PowerShell is given, letter by letter: other programs and people read these scripts too.
TEST(Scripts, are_as_agreed)
{
    const std::wstring manifest =
        LR"(Add-Type -AssemblyName System.IO.Compression.FileSystem; $zip=[IO.Compression.ZipFile]::OpenRead()"
        LR"('W\a.msix'); try { $reader=[IO.StreamReader]::new($zip.GetEntry('AppxManifest.xml').Open()); try )"
        LR"({ [xml]$manifest=$reader.ReadToEnd() } finally { $reader.Dispose() } } finally { $zip.Dispose() }; )"
        LR"($id=$manifest.Package.Identity; )";
    const std::wstring folders =
        LR"($file='W\output\folders.xml'; if (Test-Path -LiteralPath $file) { $shell=New-Object -ComObject )"
        LR"(Shell.Application; $open=@($shell.Windows() | ForEach-Object LocationURL); foreach ($url in )"
        LR"((Import-Clixml -LiteralPath $file)) { if ($url -is [string] -and $url -like 'file:*' -and $url )"
        LR"(-notin $open) { $shell.Explore($url) } } }; )";
    const std::wstring tray =
        LR"(Start-Process -FilePath 'P\Quorbel.SystemTray.exe'; $deadline=(Get-Date).AddSeconds(15); do { )"
        LR"(Start-Sleep -Milliseconds 250; $tray=Get-Process Quorbel.SystemTray -ErrorAction SilentlyContinue )"
        LR"(| Where-Object SessionId -eq 42 } until ($tray -or (Get-Date) -gt $deadline); if (!$tray) { throw )"
        LR"('Tray did not return' })";
    const std::vector<std::wstring> agreed{
        manifest +
            LR"($old=@(Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher); if ($old.)"
            LR"(Count) { Write-Output 'QBL_REGISTERED'; $old | Select-Object Name,Version,Status | Format-List; )"
            LR"(if ($old.Count -ne 1 -or $old[0].Version -ne [version]$id.Version -or [string]$old[0].Status )"
            LR"(-ne 'Ok') { Write-Output 'QBL_RECOVERY_NORMALIZES_REGISTRATION' } } else { Write-Output )"
            LR"('QBL_ABSENT' })",
        manifest +
            LR"(Add-AppxPackage -Path 'W\a.msix' -ExternalLocation 'P' -ForceUpdateFromAnyVersion -ErrorAction )"
            LR"(Stop; $registered=@(Get-AppxPackage -Name $id.Name | Where-Object { $_.Publisher -eq $id.Publisher )"
            LR"(-and $_.Version -eq [version]$id.Version }); if ($registered.Count -ne 1 -or [string]$registered[0])"
            LR"(.Status -ne 'Ok') { throw ('Package verification failed: '+$id.Name) }; )",
        manifest +
            LR"(Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher | Remove-AppxPackage )"
            LR"(-ErrorAction Stop; if (Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher) )"
            LR"({ throw 'Rollback package removal failed' }; )",
        LR"($shell=New-Object -ComObject Shell.Application; @($shell.Windows() | ForEach-Object { if ($_.FullName )"
        LR"(-like '*\explorer.exe' -and $_.LocationURL -like 'file:*') { $_.LocationURL } }) | Export-Clixml )"
        LR"(-LiteralPath 'W\output\folders.xml')",
        folders + LR"(Start-Process -FilePath 'P\Quorbel.Kindra.HelperService.exe'; )" + tray,
        LR"(Start-Process -FilePath 'P\Quorbel.exe' -ArgumentList '--open-tab=what-new')"};
    EXPECT_EQ(scripts(L"P", L"W"), agreed);
    EXPECT_EQ(
        restore_runtime_script(
            {.product_directory = L"P", .workspace = L"W", .session_id = 42, .user_sid = {}}, false),
        folders + tray);
}

TEST(Scripts, take_folders_as_literals_alone)
{
    const std::wstring odd = L"C:\\It's; '$(x) `\" [\u00C4\u4E2D]''";
    const std::vector<std::wstring> plain = scripts(L"<P>", L"<W>");
    const std::vector<std::wstring> found = scripts(odd, odd + L"W");
    const std::wstring quoted = quote_powershell_literal(odd);
    const std::wstring inner = quoted.substr(1, quoted.size() - 2);
    for (std::size_t i = 0; i != plain.size(); ++i) {
        EXPECT_EQ(found[i], replaced(replaced(plain[i], L"<P>", inner), L"<W>", inner + L"W"));
    }
}

} // namespace
} // namespace custom_actions::controlled_upgrade
