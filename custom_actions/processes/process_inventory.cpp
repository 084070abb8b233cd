#include "custom_actions/processes/process_inventory.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"

#include <tlhelp32.h>

#include <algorithm>

namespace custom_actions {
namespace {

constexpr wchar_t fold(wchar_t unit) noexcept
{
    return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit - L'A' + L'a') : unit;
}

[[noreturn]] void throw_for_process(const char* message, DWORD process, DWORD code)
{
    throw windows_error{message + std::to_string(process), code};
}

// The modules of a process, 64-bit or 32-bit. The system answers ERROR_BAD_LENGTH while the process is still
// loading them.
kernel_handle module_snapshot(DWORD process)
{
    for (int attempt = 1;; ++attempt) {
        kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPMODULE | TH32CS_SNAPMODULE32, process)};
        if (snapshot || GetLastError() != ERROR_BAD_LENGTH || attempt == 3) {
            return snapshot;
        }
    }
}

bool fits_any(const wchar_t* module, const name_list& patterns)
{
    return std::ranges::any_of(
        patterns, [&](const std::wstring& pattern) { return matches_module_pattern(module, pattern); });
}

} // namespace

name_list our_process_images()
{
    return {
        L"Quorbel.exe",
        L"Quorbel.HotkeyHandler.exe",
        L"Quorbel.HotkeyHandler.Helper.exe",
        L"Quorbel.Kindra.HelperService.exe",
        L"Quorbel.AutoTagging.Service.exe",
        L"Sorvane.Common.TagManager.exe",
        L"Quorbel.Comment.exe",
        L"Quorbel.Paste.exe",
        L"Quorbel.Kindra.VariablesUX.exe",
        L"Quorbel.MessageDialog.exe",
        L"Sorvane.Common.BatchProcessor.exe",
    };
}

name_list shell_host_images()
{
    return {L"dllhost.exe", L"explorer.exe"};
}

name_list our_shell_modules()
{
    return {
        L"Quorbel.Plexa.ShellExtension.dll",
        L"Quorbel.Kindra.ShellExtension.dll",
        L"Quorbel.Paste.ShellExtension.dll",
        L"Quorbel.Comment.ShellExtension.dll",
        L"Sorvane.Icon.ShellExtension.dll",
        L"Sorvane.Rate.ShellExtension.dll",
        L"Sorvane.Tag.ShellExtension.dll",
        L"Sorvane.Namespace.ShellExtension.dll",
        L"Sorvane.PropertyHandler.ShellExtension.dll",
        L"Sorvane.IconHandler.ShellExtension.dll",
        L"Quorbel.WindowOrganizer*.dll",
        L"Quorbel.ContextMenuReplacement.Hook*.dll",
    };
}

bool matches_module_pattern(std::wstring_view name, std::wstring_view pattern) noexcept
{
    constexpr std::size_t none = std::wstring_view::npos;
    std::size_t at = 0;
    std::size_t in_pattern = 0;
    std::size_t after_star = none; // the pattern behind the last star
    std::size_t star_end = 0;      // where in the name what that star stands for ends
    while (at != name.size()) {
        if (in_pattern != pattern.size() && pattern[in_pattern] == L'*') {
            after_star = ++in_pattern;
            star_end = at;
        } else if (in_pattern != pattern.size() && fold(pattern[in_pattern]) == fold(name[at])) {
            ++in_pattern;
            ++at;
        } else if (after_star != none) {
            in_pattern = after_star;
            at = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(L'*', in_pattern) == none;
}

process_list find_processes_by_image(const name_list& images, listing how)
{
    const kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)};
    if (!snapshot) {
        if (how == listing::lenient) {
            return {};
        }
        throw_last_error("Cannot snapshot processes");
    }
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    if (!Process32FirstW(snapshot.get(), &entry)) {
        if (how == listing::lenient || GetLastError() == ERROR_NO_MORE_FILES) {
            return {};
        }
        throw_last_error("Cannot enumerate processes");
    }
    process_list found;
    for (BOOL more = TRUE; more; more = Process32NextW(snapshot.get(), &entry)) {
        const std::wstring_view image = entry.szExeFile;
        if (std::ranges::any_of(images, [&](const auto& name) { return equal_ignoring_case(image, name); })) {
            found.push_back(entry.th32ProcessID);
        }
    }
    if (how == listing::strict && GetLastError() != ERROR_NO_MORE_FILES) {
        throw_last_error("Process enumeration incomplete");
    }
    return found;
}

bool process_has_module(DWORD process, const name_list& patterns, listing how)
{
    const auto fail = [&](const char* message) {
        const DWORD code = GetLastError();
        if (how == listing::strict) {
            throw_for_process(message, process, code);
        }
        return false;
    };

    const kernel_handle snapshot = module_snapshot(process);
    if (!snapshot) {
        const DWORD code = GetLastError();
        if (code == ERROR_INVALID_PARAMETER) {
            return false; // the process has gone
        }
        return fail(code == ERROR_BAD_LENGTH ? "Unstable modules for PID " : "Cannot inspect host PID ");
    }
    MODULEENTRY32W entry{};
    entry.dwSize = sizeof entry;
    if (!Module32FirstW(snapshot.get(), &entry)) {
        return fail("Cannot read modules for PID ");
    }
    for (BOOL more = TRUE; more; more = Module32NextW(snapshot.get(), &entry)) {
        if (fits_any(entry.szModule, patterns)) {
            return true;
        }
    }
    return GetLastError() != ERROR_NO_MORE_FILES && fail("Incomplete modules for PID ");
}

process_list find_shell_hosts(const name_list& images, const name_list& patterns)
{
    process_list hosts = find_processes_by_image(images, listing::lenient);
    std::erase_if(hosts, [&](DWORD process) {
        return process == GetCurrentProcessId() || !process_has_module(process, patterns, listing::lenient);
    });
    return hosts;
}

} // namespace custom_actions
