#include "custom_actions/processes/hook_release.h"

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <tlhelp32.h>

#include <algorithm>
#include <exception>
#include <string>

namespace custom_actions {
namespace {

bool contains(const process_list& processes, DWORD process) noexcept
{
    return std::ranges::find(processes, process) != processes.end();
}

// A thread that processes any message lets the system unload a hook that it no longer needs.
void wake_threads(const process_list& hosts)
{
    const kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0)};
    if (!snapshot) {
        throw_last_error("Cannot enumerate hook-host threads");
    }
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL found = Thread32First(snapshot.get(), &entry); found;
         found = Thread32Next(snapshot.get(), &entry)) {
        if (contains(hosts, entry.th32OwnerProcessID)) {
            PostThreadMessageW(entry.th32ThreadID, WM_NULL, 0, 0);
        }
    }
}

void wake_message_windows(const process_list& hosts)
{
    HWND window = nullptr;
    for (int count = 0; count != 4096; ++count) {
        window = FindWindowExW(HWND_MESSAGE, window, nullptr, nullptr);
        if (window == nullptr) {
            return;
        }
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (contains(hosts, owner)) {
            PostMessageW(window, WM_NULL, 0, 0);
        }
    }
}

// Returns the processes that still have the hook loaded 3 seconds later.
process_list wait_for_release(process_list hosts)
{
    const ULONGLONG deadline = GetTickCount64() + 3000;
    while (!hosts.empty() && GetTickCount64() < deadline) {
        Sleep(250);
        hosts = find_hook_hosts();
    }
    return hosts;
}

std::wstring release_line(const process_list& still_mapped)
{
    if (still_mapped.empty()) {
        return L"Window Organizer hook hosts released.";
    }
    std::wstring line =
        L"Window Organizer hook image still mapped in running applications; its file will be removed "
        L"on restart. PIDs:";
    for (const DWORD process : still_mapped) {
        line.append(L" ").append(std::to_wstring(process));
    }
    return line;
}

} // namespace

process_list find_hook_hosts()
{
    const kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)};
    if (!snapshot) {
        throw_last_error("Cannot enumerate hook hosts");
    }
    const name_list hook{L"Quorbel.WindowOrganizer*.dll"};
    process_list hosts;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL found = Process32FirstW(snapshot.get(), &entry); found;
         found = Process32NextW(snapshot.get(), &entry)) {
        // To ask for the modules of process 0 is to ask for the caller's.
        const DWORD process = entry.th32ProcessID;
        if (process != 0 && process != GetCurrentProcessId() &&
            process_has_module(process, hook, listing::lenient)) {
            hosts.push_back(process);
        }
    }
    return hosts;
}

void release_hook(MSIHANDLE session)
{
    try {
        const process_list hosts = find_hook_hosts();
        wake_threads(hosts);
        wake_message_windows(hosts);
        msi_log(session, release_line(wait_for_release(hosts)));
    } catch (const std::exception&) {
        msi_log(session, L"Could not verify Window Organizer hook release.");
    }
}

} // namespace custom_actions
