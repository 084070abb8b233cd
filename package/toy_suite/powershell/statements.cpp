#include "package/toy_suite/powershell/statements.h"

#include "package/toy_suite/powershell/archive.h"
#include "package/toy_suite/powershell/processes.h"
#include "package/toy_suite/powershell/script_reader.h"
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
    state.output += "QBL_REGISTERED\n\n\n";
    for (const registered_package& package : old) {
        state.output.append("Name    : ").append(narrow(package.identity.name));
        state.output.append("\nVersion : ").append(narrow(package.identity.version));
        state.output.append("\nStatus  : ").append(narrow(package.status)).append("\n\n");
    }
    if (old.size() != 1 || old[0].identity.version != state.identity.version ||
        !equal_ignoring_case(old[0].status, L"Ok")) {
        state.output += "\nQBL_RECOVERY_NORMALIZES_REGISTRATION\n";
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
    if (!packages_of(state.identity).empty()) {
        throw std::runtime_error{"Rollback package removal failed"};
    }
}

void remove_by_name(run_state& /*state*/, const literals& values)
{
    std::ranges::for_each(packages_named(values[0]), remove_package);
    if (!packages_named(values[1]).empty()) {
        throw std::runtime_error{"Package remains registered after removal"};
    }
}

bool is_folder(const std::wstring& url)
{
    return equal_ignoring_case(std::wstring_view{url}.substr(0, 5), L"file:");
}

constexpr const wchar_t* OPEN_FOLDERS = L"OpenFolders";

// The characters that XML escapes by name.
struct named_character {
    wchar_t character;
    std::wstring_view name;
};

constexpr named_character NAMED_CHARACTERS[]{
    {.character = L'&', .name = L"&amp;"},
    {.character = L'<', .name = L"&lt;"},
    {.character = L'>', .name = L"&gt;"}};

std::wstring as_xml(const std::wstring& text)
{
    std::wstring escaped;
    for (const wchar_t unit : text) {
        const auto* const named = std::ranges::find(NAMED_CHARACTERS, unit, &named_character::character);
        escaped += named == std::end(NAMED_CHARACTERS) ? std::wstring_view{&unit, 1} : named->name;
    }
    return escaped;
}

std::wstring from_xml(std::wstring text)
{
    for (std::size_t at = text.find(L'&'); at != std::wstring::npos; at = text.find(L'&', at + 1)) {
        const auto* const named = std::ranges::find_if(NAMED_CHARACTERS, [&](const named_character& each) {
            return text.compare(at, each.name.size(), each.name) == 0;
        });
        if (named != std::end(NAMED_CHARACTERS)) {
            text.replace(at, named->name.size(), 1, named->character);
        }
    }
    return text;
}

// CLIXML as Export-Clixml writes it by default: UTF-16 with a byte-order mark.
void export_texts(const std::wstring& file, const std::vector<std::wstring>& texts)
{
    std::wstring content =
        L"\uFEFF<Objs Version=\"1.1.0.1\" xmlns=\"http://schemas.microsoft.com/powershell/2004/04\">\r\n";
    for (const std::wstring& text : texts) {
        content.append(L"  <S>").append(as_xml(text)).append(L"</S>\r\n");
    }
    content += L"</Objs>";
    std::ofstream stream{std::filesystem::path{file}, std::ios::binary};
    stream.write(
        reinterpret_cast<const char*>(content.data()),
        static_cast<std::streamsize>(content.size() * sizeof(wchar_t)));
    if (!stream.flush()) {
        throw std::runtime_error{"Export-Clixml : Could not write '" + narrow(file) + "'"};
    }
}

std::vector<std::wstring> import_texts(const std::wstring& file)
{
    const std::string bytes = read_file(file);
    std::wstring content(bytes.size() / sizeof(wchar_t), L'\0');
    std::copy_n(bytes.data(), content.size() * sizeof(wchar_t), reinterpret_cast<char*>(content.data()));
    if (!content.starts_with(L"\uFEFF<Objs ") || !content.ends_with(L"</Objs>")) {
        throw std::runtime_error{"Import-Clixml : Data at the root level is invalid"};
    }
    std::vector<std::wstring> texts;
    for (std::size_t at = content.find(L"<S>"); at != std::wstring::npos; at = content.find(L"<S>", at + 1)) {
        texts.push_back(from_xml(content.substr(at + 3, content.find(L"</S>", at) - at - 3)));
    }
    return texts;
}

void capture_folders(run_state& /*state*/, const literals& values)
{
    auto open = state_key{}.list(OPEN_FOLDERS);
    std::erase_if(open, [](const std::wstring& url) { return !is_folder(url); });
    export_texts(values[0], open);
}

void restore_folders(run_state& /*state*/, const literals& values)
{
    if (!std::filesystem::exists(values[0])) {
        return;
    }
    const auto open = state_key{}.list(OPEN_FOLDERS);
    std::vector<std::wstring> opened = open;
    for (const std::wstring& url : import_texts(values[0])) {
        const bool is_open =
            std::ranges::any_of(open, [&](const auto& each) { return equal_ignoring_case(each, url); });
        if (is_folder(url) && !is_open) {
            opened.push_back(url);
        }
    }
    state_key{}.write(OPEN_FOLDERS, opened);
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
    const auto in_session = [&](DWORD process) { return session_of(process) == session; };
    const ULONGLONG deadline = GetTickCount64() + state_key{ORDERS}.number(L"TrayWaitMs").value_or(15'000);
    bool runs = false;
    do { // NOLINT(cppcoreguidelines-avoid-do-while): as the statement does it
        Sleep(250);
        runs = process_runs(L"Quorbel.SystemTray", in_session);
    } while (!runs && GetTickCount64() <= deadline);
    if (!runs) {
        throw std::runtime_error{"Tray did not return"};
    }
}

void start_closed_programs(run_state& /*state*/, const literals& values)
{
    const DWORD session = session_of(GetCurrentProcessId());
    for (const std::filesystem::path path : values) {
        const bool runs = process_runs(path.stem().wstring(), [&](DWORD process) {
            return session_of(process) == session && equal_ignoring_case(path_of(process), path.wstring());
        });
        if (!runs && std::filesystem::exists(path)) {
            start_process(path.wstring(), L"", path.parent_path().wstring());
        }
    }
}

// The statements of the controlled upgrade's scripts.
constexpr statement STATEMENTS[]{
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

// Statements that are a whole script.
constexpr statement WHOLE_SCRIPTS[]{
    {.text = L"Add-AppxPackage -Path %s -ExternalLocation %s -ForceUpdateFromAnyVersion "
             L"-DeferRegistrationWhenPackagesAreInUse -ErrorAction Stop",
     .run = add},
    {.text = L"$ErrorActionPreference='Stop'; try { Get-AppxPackage -Name %s | ForEach-Object "
             L"{ Remove-AppxPackage -Package $_.PackageFullName -ErrorAction Stop }; "
             L"if (Get-AppxPackage -Name %s) { throw 'Package remains registered after removal' }; exit 0 } "
             L"catch { Write-Error $_ -ErrorAction Continue; exit 1 }",
     .run = remove_by_name},
};

// The recovery script, before and after its list of programs.
constexpr statement RECOVERY{
    .text = L"$ErrorActionPreference='Stop'; $session=(Get-Process -Id $PID).SessionId; foreach($path in @(",
    .run = start_closed_programs};
constexpr const wchar_t* RECOVERY_END =
    L")) { $name=[IO.Path]::GetFileNameWithoutExtension($path); "
    L"$running=@(Get-Process -Name $name -ErrorAction SilentlyContinue | "
    L"Where-Object { $_.SessionId -eq $session -and $_.Path -eq $path }); "
    L"if (!$running.Count -and (Test-Path -LiteralPath $path)) { Start-Process -FilePath $path "
    L"-WorkingDirectory ([IO.Path]::GetDirectoryName($path)) | Out-Null } }";

// The frame of a script whose output goes to a log file.
constexpr const wchar_t* LOGGED_START =
    L"$ErrorActionPreference='Stop'; $ProgressPreference='SilentlyContinue'; try { & { ";
constexpr const wchar_t* LOGGED_END =
    L" } *>&1 | Out-File -LiteralPath %s -Encoding utf8; exit 0 } "
    L"catch { $_ | Out-String | Out-File -LiteralPath %s -Encoding utf8 -Append; exit 1 }";

std::optional<parsed_script> parse_whole(script_reader reader)
{
    for (const statement& whole : WHOLE_SCRIPTS) {
        if (script_step step{.what = &whole, .values = {}}; reader.take(whole.text, step.values)) {
            return reader.at_end() ? std::optional{parsed_script{.log = {}, .steps = {step}}} : std::nullopt;
        }
    }
    return std::nullopt;
}

std::optional<parsed_script> parse_recovery(script_reader reader)
{
    script_step step{.what = &RECOVERY, .values = {}};
    bool taken = reader.take(RECOVERY.text, step.values);
    if (taken && reader.take(L"%s", step.values)) {
        while (reader.take(L",%s", step.values)) {
        }
    }
    taken = taken && reader.take(RECOVERY_END, step.values) && reader.at_end();
    return taken ? std::optional{parsed_script{.log = {}, .steps = {step}}} : std::nullopt;
}

std::optional<parsed_script> parse_logged(script_reader reader)
{
    parsed_script script;
    literals logs;
    if (!reader.take(LOGGED_START, logs)) {
        return std::nullopt;
    }
    while (!reader.take(LOGGED_END, logs)) {
        script_step step{};
        const auto* const next = std::ranges::find_if(
            STATEMENTS, [&](const statement& each) { return reader.take(each.text, step.values); });
        if (next == std::end(STATEMENTS)) {
            return std::nullopt;
        }
        step.what = next;
        script.steps.push_back(std::move(step));
    }
    script.log = logs[0];
    return reader.at_end() && logs[0] == logs[1] ? std::optional{std::move(script)} : std::nullopt;
}

} // namespace

std::optional<parsed_script> parse(std::wstring_view script)
{
    for (const auto& form : {parse_logged, parse_recovery, parse_whole}) {
        if (auto parsed = form(script_reader{script})) {
            return parsed;
        }
    }
    return std::nullopt;
}

} // namespace toy_powershell
