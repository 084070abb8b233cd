// The stand-in for PowerShell, where it could lie: what it refuses, and what its packages and folder windows
// look like from one script to the next.

#include "tests/support/child_process.h"
#include "tests/support/installation.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wincrypt.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>

namespace test_support {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

child_result run(const std::wstring& arguments)
{
    return run_child(L"powershell.exe " + arguments, 20s);
}

child_result run_plain(const std::wstring& script)
{
    return run(L"-NoProfile -ExecutionPolicy Bypass -Command \"" + script + L'"');
}

child_result run_encoded(const std::wstring& script)
{
    std::wstring encoded((script.size() * 4) + 16, L'\0');
    auto size = static_cast<DWORD>(encoded.size());
    CryptBinaryToStringW(
        reinterpret_cast<const BYTE*>(script.data()),
        static_cast<DWORD>(script.size() * sizeof(wchar_t)),
        CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF,
        encoded.data(),
        &size);
    encoded.resize(size);
    return run(L"-NoProfile -NonInteractive -WindowStyle Hidden -EncodedCommand " + encoded);
}

std::wstring quoted(const std::wstring& text)
{
    return L'\'' + std::regex_replace(text, std::wregex{L"'"}, L"''") + L'\'';
}

class PowerShellStandIn : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "takes PowerShell's place: set DISPOSABLE_MACHINE where that may be";
        }
        stand_in.emplace();
    }

    // Runs the statements as the controlled upgrade does; the exit code, and what the log says between its
    // byte-order mark and its last line end.
    std::string run_logged(const std::wstring& body)
    {
        const child_result result = run_encoded(
            L"$ErrorActionPreference='Stop'; $ProgressPreference='SilentlyContinue'; try { & { " + body +
            L" } *>&1 | Out-File -LiteralPath " + quoted(log) +
            L" -Encoding utf8; exit 0 } catch { $_ | Out-String | Out-File -LiteralPath " + quoted(log) +
            L" -Encoding utf8 -Append; exit 1 }");
        std::ostringstream content;
        content << std::ifstream{log, std::ios::binary}.rdbuf();
        return std::to_string(result.exit_code) + ' ' + content.str();
    }

    std::optional<powershell_stand_in> stand_in;
    std::filesystem::path log = std::filesystem::temp_directory_path() / L"stand-in's.log";
    std::filesystem::path built = std::filesystem::path{this_program()}.parent_path() / L"package";
    std::wstring package = built / LR"(1.5.0\Sorvane.Icon.Package.msix)";
    std::wstring newer = built / LR"(2.0.0\Sorvane.Icon.Package.msix)";
    std::wstring folder = built.wstring();
    std::wstring add =
        L"Add-AppxPackage -Path '" + package + L"' -ExternalLocation '" + folder +
        L"' -ForceUpdateFromAnyVersion -DeferRegistrationWhenPackagesAreInUse -ErrorAction Stop";
};

std::wstring replaced(std::wstring text, const std::wstring& what, const std::wstring& with)
{
    return text.replace(text.find(what), what.size(), with);
}

TEST_F(PowerShellStandIn, refuses_what_it_does_not_understand)
{
    const std::wstring scripts[]{
        L"Write-Output 'x'",
        add + L' ',
        add + L"; Remove-Item 'x'",
        replaced(add, L"Stop", L"stop"),
        replaced(add, L"Sorvane", L"it's"),       // the literal ends early
        replaced(add, L"Sorvane", L"it\u2019s"),  // so it does at a typographic quote
        replaced(add, L".msix'", L".msix"),       // the literal does not end
        replaced(add, folder, folder + L"''' x"), // it ends, and something follows
    };
    for (const std::wstring& script : scripts) {
        EXPECT_EQ(run_plain(script).exit_code, 64U) << testing::PrintToString(script);
        EXPECT_EQ(stand_in->refused(), script);
    }
    EXPECT_EQ(run_logged(L"Start-Process -FilePath 'C:\\absent.exe'; Remove-Item 'x'"), "64 ")
        << "nothing is done where the end is not understood";
    EXPECT_THAT(run(L"-NoProfile -Command x").output, HasSubstr("does not understand"));
    EXPECT_EQ(run(L"-NoProfile -NonInteractive -WindowStyle Hidden -EncodedCommand !").exit_code, 64U);
    EXPECT_THAT(stand_in->packages(), ElementsAre());
}

TEST_F(PowerShellStandIn, keeps_packages_from_script_to_script)
{
    const std::wstring manifest =
        L"Add-Type -AssemblyName System.IO.Compression.FileSystem; "
        L"$zip=[IO.Compression.ZipFile]::OpenRead('" +
        newer +
        L"'); try { $reader=[IO.StreamReader]::new($zip.GetEntry('AppxManifest.xml').Open()); try { "
        L"[xml]$manifest=$reader.ReadToEnd() } finally { $reader.Dispose() } } finally { $zip.Dispose() }; "
        L"$id=$manifest.Package.Identity; ";
    const std::wstring capture =
        manifest +
        L"$old=@(Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher); if ($old.Count) "
        L"{ "
        L"Write-Output 'QBL_REGISTERED'; $old | Select-Object Name,Version,Status | Format-List; if "
        L"($old.Count "
        L"-ne 1 -or $old[0].Version -ne [version]$id.Version -or [string]$old[0].Status -ne 'Ok') { "
        L"Write-Output 'QBL_RECOVERY_NORMALIZES_REGISTRATION' } } else { Write-Output 'QBL_ABSENT' }";
    const std::wstring update = manifest + L"Add-AppxPackage -Path '" + newer + L"' -ExternalLocation '" +
                                folder + L"' -ForceUpdateFromAnyVersion -ErrorAction Stop; ";
    const std::wstring verify =
        L"$registered=@(Get-AppxPackage -Name $id.Name | Where-Object { $_.Publisher -eq $id.Publisher -and "
        L"$_.Version -eq [version]$id.Version }); if ($registered.Count -ne 1 -or "
        L"[string]$registered[0].Status "
        L"-ne 'Ok') { throw ('Package verification failed: '+$id.Name) }; ";
    const auto remove = [](const std::wstring& name) {
        return L"$ErrorActionPreference='Stop'; try { Get-AppxPackage -Name '" + name +
               L"' | ForEach-Object { Remove-AppxPackage -Package $_.PackageFullName -ErrorAction Stop }; if "
               L"(Get-AppxPackage -Name '" +
               name +
               L"') { throw 'Package remains registered after removal' }; exit 0 } catch { Write-Error $_ "
               L"-ErrorAction Continue; exit 1 }";
    };

    EXPECT_EQ(run_logged(capture), "0 \xEF\xBB\xBFQBL_ABSENT\r\n");
    EXPECT_EQ(run_plain(add).exit_code, 0U);
    EXPECT_THAT(stand_in->packages(), ElementsAre(L"Sorvane.Icon 1.5.0.0 Ok " + folder));
    EXPECT_THAT(run_logged(capture), HasSubstr("QBL_RECOVERY_NORMALIZES_REGISTRATION")) << "another version";
    EXPECT_EQ(run_logged(update + verify), "0 \xEF\xBB\xBF");
    EXPECT_THAT(stand_in->packages(), ElementsAre(L"Sorvane.Icon 2.0.0.0 Ok " + folder));
    EXPECT_EQ(
        run_logged(capture),
        "0 \xEF\xBB\xBFQBL_REGISTERED\r\n\r\n\r\nName    : Sorvane.Icon\r\nVersion : 2.0.0.0\r\n"
        "Status  : Ok\r\n\r\n");

    stand_in->tell(L"AddStatus", L"Modified Icon");
    const std::string failed = "1 \xEF\xBB\xBFPackage verification failed: Sorvane.Icon\r\n\r\n";
    EXPECT_EQ(run_logged(update + verify), failed);
    EXPECT_THAT(run_logged(capture), HasSubstr("NORMALIZES"));
    stand_in->tell_nothing();
    stand_in->register_package(L"Sorvane.Icon", L"2.0.0.0", L"Ok", L"x86");
    EXPECT_EQ(run_logged(update + verify), failed) << "two of the same version";

    stand_in->tell(L"KeepPackage", L"x86");
    const child_result kept = run_plain(remove(L"sorvane.icon"));
    EXPECT_EQ(kept.exit_code, 1U);
    EXPECT_EQ(kept.output, "Package remains registered after removal\r\n");
    stand_in->tell_nothing();
    EXPECT_EQ(run_plain(remove(L"Sorvane.Icon")).exit_code, 0U);
    EXPECT_THAT(stand_in->packages(), ElementsAre());
    EXPECT_EQ(run_plain(remove(L"Sorvane.Icon")).exit_code, 0U) << "nothing is there to be removed";

    EXPECT_EQ(run_plain(replaced(add, L".msix", L".absent")).exit_code, 1U);
    EXPECT_EQ(run_plain(replaced(add, folder + L"' -F", folder + L"\\absent' -F")).exit_code, 1U);
    stand_in->tell(L"FailAdd", L"Icon");
    EXPECT_EQ(run_plain(add).exit_code, 1U);
    EXPECT_THAT(stand_in->packages(), ElementsAre());
    EXPECT_EQ(stand_in->refused(), L"");
}

TEST_F(PowerShellStandIn, opens_the_folders_that_were_open_and_are_not)
{
    const std::wstring file = log.parent_path() / L"folders.xml";
    const std::wstring capture =
        L"$shell=New-Object -ComObject Shell.Application; @($shell.Windows() | ForEach-Object { if "
        L"($_.FullName "
        L"-like '*\\explorer.exe' -and $_.LocationURL -like 'file:*') { $_.LocationURL } }) | Export-Clixml "
        L"-LiteralPath '" +
        file + L"'";
    const std::wstring restore =
        L"$file='" + file +
        L"'; if (Test-Path -LiteralPath $file) { $shell=New-Object -ComObject Shell.Application; "
        L"$open=@($shell.Windows() | ForEach-Object LocationURL); foreach ($url in (Import-Clixml "
        L"-LiteralPath "
        L"$file)) { if ($url -is [string] -and $url -like 'file:*' -and $url -notin $open) { "
        L"$shell.Explore($url) } } }; ";
    stand_in->open_folders({L"file:///C:/R&D <1>", L"https://quorbel.example", L"FILE:///C:/\u00FC"});
    EXPECT_EQ(run_logged(capture), "0 \xEF\xBB\xBF");
    stand_in->open_folders({L"file:///c:/r&d <1>"});
    EXPECT_EQ(run_logged(restore), "0 \xEF\xBB\xBF");
    EXPECT_THAT(stand_in->folders(), ElementsAre(L"file:///c:/r&d <1>", L"FILE:///C:/\u00FC"));
    std::filesystem::remove(file);
    EXPECT_EQ(run_logged(restore), "0 \xEF\xBB\xBF") << "no file, nothing to open";
}

TEST_F(PowerShellStandIn, starts_real_programs_and_waits_for_the_tray)
{
    const std::filesystem::path programs = log.parent_path() / L"it's";
    const std::wstring tray = programs / L"Quorbel.SystemTray.exe";
    std::filesystem::create_directories(programs);
    std::filesystem::copy_file(
        built.parent_path() / L"toy_program.exe", tray, std::filesystem::copy_options::overwrite_existing);
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    const std::wstring wait =
        L"$deadline=(Get-Date).AddSeconds(15); do { Start-Sleep -Milliseconds 250; $tray=Get-Process "
        L"Quorbel.SystemTray -ErrorAction SilentlyContinue | Where-Object SessionId -eq " +
        std::to_wstring(session) +
        L" } until ($tray -or (Get-Date) -gt $deadline); if (!$tray) { throw 'Tray did not return' }";
    const std::wstring recover =
        L"$ErrorActionPreference='Stop'; $session=(Get-Process -Id $PID).SessionId; foreach($path in "
        L"@('C:\\absent.exe'," +
        quoted(tray) +
        L")) { $name=[IO.Path]::GetFileNameWithoutExtension($path); $running=@(Get-Process -Name $name "
        L"-ErrorAction SilentlyContinue | Where-Object { $_.SessionId -eq $session -and $_.Path -eq $path "
        L"}); "
        L"if (!$running.Count -and (Test-Path -LiteralPath $path)) { Start-Process -FilePath $path "
        L"-WorkingDirectory ([IO.Path]::GetDirectoryName($path)) | Out-Null } }";

    stand_in->tell(L"TrayWaitMs", 0);
    EXPECT_EQ(run_logged(wait), "1 \xEF\xBB\xBFTray did not return\r\n\r\n");
    EXPECT_EQ(run_logged(L"Start-Process -FilePath " + quoted(tray) + L"; " + wait), "0 \xEF\xBB\xBF");
    EXPECT_EQ(run_encoded(recover).exit_code, 0U);
    EXPECT_EQ(end_programs(L"Quorbel.SystemTray.exe"), 1U) << "it ran already";
    EXPECT_EQ(run_encoded(recover).exit_code, 0U);
    EXPECT_EQ(end_programs(L"Quorbel.SystemTray.exe"), 1U);
    EXPECT_EQ(stand_in->refused(), L"");
    std::filesystem::remove_all(programs);
}

TEST_F(PowerShellStandIn, does_what_it_is_told)
{
    const std::wstring open_nothing = L"Start-Process -FilePath 'C:\\absent.exe' -ArgumentList 'x'";
    EXPECT_THAT(run_logged(open_nothing), testing::StartsWith("1 \xEF\xBB\xBFStart-Process : "));
    stand_in->tell(L"EmptyLog", L"absent");
    EXPECT_EQ(run_logged(open_nothing), "1 \xEF\xBB\xBF");
    std::filesystem::remove(log);
    stand_in->tell(L"NoLog", L"absent");
    EXPECT_EQ(run_logged(open_nothing), "0 ");
    stand_in->tell(L"Die", L"17 absent");
    EXPECT_EQ(run_logged(open_nothing), "17 ");
    stand_in->tell_nothing();

    stand_in->tell(L"PrintOut", L"100000 Sorvane");
    stand_in->tell(L"PrintError", L"100000 Sorvane");
    stand_in->tell(L"Fail", L"Sorvane");
    const child_result printed = run_plain(add);
    EXPECT_EQ(printed.exit_code, 1U);
    EXPECT_EQ(printed.output.size(), 200000 + sizeof "The script was told to fail\r\n" - 1);
    EXPECT_THAT(stand_in->packages(), ElementsAre());
    EXPECT_EQ(stand_in->scripts().back(), add);
}

} // namespace
} // namespace test_support
