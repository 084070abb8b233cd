#include "package/toy_suite/powershell/statements.h"

#include "package/toy_suite/powershell/processes.h"
#include "package/toy_suite/powershell/state.h"
#include "package/toy_suite/powershell/text.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace toy_powershell {
namespace {

const package_identity& identity_of(const run_state& state)
{
    if (state.identity.name.empty()) {
        throw std::runtime_error{"no manifest was read before"};
    }
    return state.identity;
}

void read_manifest(run_state& state, const literals& values)
{
    state.identity = read_identity(values[0]);
}

void capture_registration(run_state& state, const literals& /*values*/)
{
    const auto old = packages_of(identity_of(state));
    if (old.empty()) {
        state.output += "QBL_ABSENT\n";
        return;
    }
    state.output += "QBL_REGISTERED\n";
    if (old.size() != 1 || old[0].identity.version != state.identity.version ||
        !equal_ignoring_case(old[0].status, L"Ok")) {
        state.output += "QBL_RECOVERY_NORMALIZES_REGISTRATION\n";
    }
}

void add(run_state& /*state*/, const literals& values)
{
    add_package(values[0], values[1]);
}

void verify_registration(run_state& state, const literals& /*values*/)
{
    auto registered = packages_of(identity_of(state));
    std::erase_if(registered, [&](const registered_package& package) {
        return package.identity.version != state.identity.version;
    });
    if (registered.size() != 1 || !equal_ignoring_case(registered[0].status, L"Ok")) {
        throw std::runtime_error{"Package verification failed: " + narrow(state.identity.name)};
    }
}

void remove_registration(run_state& state, const literals& /*values*/)
{
    std::ranges::for_each(packages_of(identity_of(state)), remove_package);
}

void remove_by_name(run_state& /*state*/, const literals& values)
{
    std::ranges::for_each(packages_named(values[0]), remove_package);
    if (!packages_named(values[1]).empty()) {
        throw std::runtime_error{"Package remains registered after removal"};
    }
}

constexpr const wchar_t* OPEN_FOLDERS = L"OpenFolders";

// The end of a saved list of folders. The statements read only what they have written: a line for each folder
// does as well as CLIXML. URLs are ASCII.
constexpr const char* LIST_END = "</Objs>";

void capture_folders(run_state& /*state*/, const literals& values)
{
    std::ofstream list{std::filesystem::path{values[0]}};
    for (const std::wstring& url : state_key{}.list(OPEN_FOLDERS)) {
        if (equal_ignoring_case(url.substr(0, 5), L"file:")) {
            list << narrow(url) << '\n';
        }
    }
    list << LIST_END << '\n';
    if (!list.flush()) {
        throw std::runtime_error{"Export-Clixml : Could not write '" + narrow(values[0]) + "'"};
    }
}

void restore_folders(run_state& /*state*/, const literals& values)
{
    if (!std::filesystem::exists(values[0])) {
        return;
    }
    auto open = state_key{}.list(OPEN_FOLDERS);
    std::ifstream list{std::filesystem::path{values[0]}};
    std::string line;
    while (std::getline(list, line) && line != LIST_END) {
        const std::wstring url{line.begin(), line.end()};
        if (std::ranges::none_of(open, [&](const auto& each) { return equal_ignoring_case(each, url); })) {
            open.push_back(url);
        }
    }
    if (line != LIST_END) {
        throw std::runtime_error{"Import-Clixml : Data at the root level is invalid"};
    }
    state_key{}.write(OPEN_FOLDERS, open);
}

void start(run_state& /*state*/, const literals& values)
{
    if (!ordered(L"LoseStart", values[0])) {
        start_process(values[0], values.size() > 1 ? values[1] : L"");
    }
}

void wait_for_tray(run_state& /*state*/, const literals& values)
{
    const DWORD session = std::stoul(values[0]);
    const ULONGLONG deadline = GetTickCount64() + state_key{ORDERS}.number(L"TrayWaitMs").value_or(15'000);
    bool runs = false;
    do { // NOLINT(cppcoreguidelines-avoid-do-while): as the statement does it
        Sleep(250);
        runs = process_runs(L"Quorbel.SystemTray", session);
    } while (!runs && GetTickCount64() <= deadline);
    if (!runs) {
        throw std::runtime_error{"Tray did not return"};
    }
}

void start_closed_programs(run_state& /*state*/, const literals& values)
{
    const DWORD session = session_of(GetCurrentProcessId());
    for (const std::filesystem::path path : values) {
        const bool runs = process_runs(path.stem().wstring(), session, path.wstring());
        if (!runs && std::filesystem::exists(path)) {
            start_process(path.wstring(), L"", path.parent_path().wstring());
        }
    }
}

constexpr statement OF_LOGGED_SCRIPTS[]{
    {.text = L"Add-Type -AssemblyName System.IO.Compression.FileSystem; "
             L"$zip=[IO.Compression.ZipFile]::OpenRead(%s); "
             L"try { $reader=[IO.StreamReader]::new($zip.GetEntry('AppxManifest.xml').Open()); "
             L"try { [xml]$manifest=$reader.ReadToEnd() } "
             L"finally { $reader.Dispose() } } finally { $zip.Dispose() }; "
             L"$id=$manifest.Package.Identity; ",
     .run = read_manifest},
    {.text = L"$old=@(Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher); "
             L"if ($old.Count) { Write-Output 'QBL_REGISTERED'; "
             L"$old | Select-Object Name,Version,Status | Format-List; "
             L"if ($old.Count -ne 1 -or $old[0].Version -ne [version]$id.Version "
             L"-or [string]$old[0].Status -ne 'Ok') "
             L"{ Write-Output 'QBL_RECOVERY_NORMALIZES_REGISTRATION' } } "
             L"else { Write-Output 'QBL_ABSENT' }",
     .run = capture_registration},
    {.text = L"Add-AppxPackage -Path %s -ExternalLocation %s "
             L"-ForceUpdateFromAnyVersion -ErrorAction Stop; ",
     .run = add},
    {.text = L"$registered=@(Get-AppxPackage -Name $id.Name | Where-Object "
             L"{ $_.Publisher -eq $id.Publisher -and $_.Version -eq [version]$id.Version }); "
             L"if ($registered.Count -ne 1 -or [string]$registered[0].Status -ne 'Ok') "
             L"{ throw ('Package verification failed: '+$id.Name) }; ",
     .run = verify_registration},
    {.text = L"Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher | "
             L"Remove-AppxPackage -ErrorAction Stop; "
             L"if (Get-AppxPackage -Name $id.Name | Where-Object Publisher -eq $id.Publisher) "
             L"{ throw 'Rollback package removal failed' }; ",
     .run = remove_registration},
    {.text = L"$shell=New-Object -ComObject Shell.Application; @($shell.Windows() | ForEach-Object "
             L"{ if ($_.FullName -like '*\\explorer.exe' -and $_.LocationURL -like 'file:*') "
             L"{ $_.LocationURL } }) | Export-Clixml -LiteralPath %s",
     .run = capture_folders},
    {.text = L"$file=%s; if (Test-Path -LiteralPath $file) "
             L"{ $shell=New-Object -ComObject Shell.Application; "
             L"$open=@($shell.Windows() | ForEach-Object LocationURL); "
             L"foreach ($url in (Import-Clixml -LiteralPath $file)) "
             L"{ if ($url -is [string] -and $url -like 'file:*' -and $url -notin $open) "
             L"{ $shell.Explore($url) } } }; ",
     .run = restore_folders},
    {.text = L"Start-Process -FilePath %s; ", .run = start},
    {.text = L"Start-Process -FilePath %s -ArgumentList %s", .run = start},
    {.text = L"$deadline=(Get-Date).AddSeconds(15); do { Start-Sleep -Milliseconds 250; "
             L"$tray=Get-Process Quorbel.SystemTray -ErrorAction SilentlyContinue | "
             L"Where-Object SessionId -eq %d } until ($tray -or (Get-Date) -gt $deadline); "
             L"if (!$tray) { throw 'Tray did not return' }",
     .run = wait_for_tray},
};

constexpr statement WHOLE[]{
    {.text = L"Add-AppxPackage -Path %s -ExternalLocation %s -ForceUpdateFromAnyVersion "
             L"-DeferRegistrationWhenPackagesAreInUse -ErrorAction Stop",
     .run = add},
    {.text = L"$ErrorActionPreference='Stop'; try { Get-AppxPackage -Name %s | ForEach-Object "
             L"{ Remove-AppxPackage -Package $_.PackageFullName -ErrorAction Stop }; "
             L"if (Get-AppxPackage -Name %s) { throw 'Package remains registered after removal' }; exit 0 } "
             L"catch { Write-Error $_ -ErrorAction Continue; exit 1 }",
     .run = remove_by_name},
    {.text = L"$ErrorActionPreference='Stop'; $session=(Get-Process -Id $PID).SessionId; "
             L"foreach($path in @(%l)) { $name=[IO.Path]::GetFileNameWithoutExtension($path); "
             L"$running=@(Get-Process -Name $name -ErrorAction SilentlyContinue | "
             L"Where-Object { $_.SessionId -eq $session -and $_.Path -eq $path }); "
             L"if (!$running.Count -and (Test-Path -LiteralPath $path)) { Start-Process -FilePath $path "
             L"-WorkingDirectory ([IO.Path]::GetDirectoryName($path)) | Out-Null } }",
     .run = start_closed_programs},
};

} // namespace

const std::span<const statement> LOGGED_STATEMENTS{OF_LOGGED_SCRIPTS};
const std::span<const statement> WHOLE_SCRIPTS{WHOLE};

} // namespace toy_powershell
