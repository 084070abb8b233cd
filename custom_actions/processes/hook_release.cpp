#include "custom_actions/processes/hook_release.h"

#include "custom_actions/common/contains.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"

#include <tlhelp32.h>

#include <exception>
#include <string>

namespace custom_actions {
namespace {

constexpr int MOST_MESSAGE_WINDOWS = 4096;
constexpr ULONGLONG RELEASE_LIMIT_MS = 3000;
constexpr DWORD RELEASE_POLL_MS = 250;

// The processes, other than the calling one, that have the hook loaded. Throws windows_error "Cannot
// enumerate hook hosts" if there is no snapshot; an unreadable one is empty.
process_list find_hook_hosts()
{
    const kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)};
    check_bool(snapshot, "Cannot enumerate hook hosts");
    process_list hosts;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL found = Process32FirstW(snapshot.get(), &entry); found;
         found = Process32NextW(snapshot.get(), &entry)) {
        // The modules of "process 0" would be the caller's own.
        const DWORD process = entry.th32ProcessID;
        if (process != 0 && process != GetCurrentProcessId() &&
            process_has_module(process, HOOK_MODULES, listing::lenient)) {
            hosts.push_back(process);
        }
    }
    return hosts;
}

// A thread that handles any message lets the system unload a hook that it no longer needs.
void wake_threads(const process_list& hosts)
{
    const kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0)};
    check_bool(snapshot, "Cannot enumerate hook-host threads");
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
    for (int count = 0; count != MOST_MESSAGE_WINDOWS; ++count) {
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

// Returns the processes that still have the hook loaded when the limit has passed.
process_list wait_for_release(process_list hosts)
{
    const ULONGLONG deadline = GetTickCount64() + RELEASE_LIMIT_MS;
    while (!hosts.empty() && GetTickCount64() < deadline) {
        Sleep(RELEASE_POLL_MS);
        hosts = find_hook_hosts();
    }
    return hosts;
}

std::wstring release_line(const process_list& still_mapped)
{
    if (still_mapped.empty()) {
        return L"Window Organizer hook hosts released.";
    }
    return L"Window Organizer hook image still mapped in running applications; its file will be removed on "
           L"restart. PIDs:" +
           process_ids_text(still_mapped);
}

} // namespace

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
