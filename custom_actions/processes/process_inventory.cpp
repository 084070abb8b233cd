#include "custom_actions/processes/process_inventory.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/module_pattern.h"

#include <tlhelp32.h>

#include <algorithm>

namespace custom_actions {
namespace {

constexpr int MODULE_SNAPSHOT_ATTEMPTS = 3;

// The modules of a process, 64-bit or 32-bit. The system answers ERROR_BAD_LENGTH while the process is still
// loading them.
kernel_handle module_snapshot(DWORD process)
{
    for (int attempt = 1;; ++attempt) {
        kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPMODULE | TH32CS_SNAPMODULE32, process)};
        if (snapshot || GetLastError() != ERROR_BAD_LENGTH || attempt == MODULE_SNAPSHOT_ATTEMPTS) {
            return snapshot;
        }
    }
}

} // namespace

process_list find_processes_by_image(name_list images, listing how)
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
        if (std::ranges::any_of(images, [&](auto name) { return equal_ignoring_case(image, name); })) {
            found.push_back(entry.th32ProcessID);
        }
    }
    check_bool(
        how == listing::lenient || GetLastError() == ERROR_NO_MORE_FILES, "Process enumeration incomplete");
    return found;
}

bool process_has_module(DWORD process, name_list patterns, listing how)
{
    const auto fail = [&](const char* message) {
        const DWORD code = GetLastError();
        if (how == listing::strict) {
            throw windows_error{with_pid(message, process), code};
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
        const std::wstring_view module = entry.szModule;
        if (std::ranges::any_of(
                patterns, [&](auto pattern) { return matches_module_pattern(module, pattern); })) {
            return true;
        }
    }
    return GetLastError() != ERROR_NO_MORE_FILES && fail("Incomplete modules for PID ");
}

process_list find_shell_hosts(name_list images, name_list patterns)
{
    process_list hosts = find_processes_by_image(images, listing::lenient);
    std::erase_if(hosts, [&](DWORD process) {
        return process == GetCurrentProcessId() || !process_has_module(process, patterns, listing::lenient);
    });
    return hosts;
}

bool runs_in_session(DWORD process, DWORD session) noexcept
{
    DWORD found = 0;
    return ProcessIdToSessionId(process, &found) && found == session;
}

bool image_runs_in_session(name_list images, DWORD session)
{
    return std::ranges::any_of(find_processes_by_image(images, listing::lenient), [session](DWORD process) {
        return runs_in_session(process, session);
    });
}

std::wstring process_ids_text(const process_list& processes)
{
    std::wstring text;
    for (const DWORD process : processes) {
        text.append(L" ").append(std::to_wstring(process));
    }
    return text;
}

std::string with_pid(const char* message, DWORD process)
{
    return message + std::to_string(process);
}

} // namespace custom_actions
