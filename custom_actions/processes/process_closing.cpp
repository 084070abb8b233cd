#include "custom_actions/processes/process_closing.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/hook_release.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace custom_actions {
namespace {

struct close_request {
    const process_list* processes;
    asked_windows windows;
};

bool is_desktop_window(HWND window) noexcept
{
    if (window == GetShellWindow()) {
        return true;
    }
    std::array<wchar_t, 64> window_class{};
    const int length = GetClassNameW(window, window_class.data(), static_cast<int>(window_class.size()));
    return length != 0 && is_desktop_class(window_class.data());
}

BOOL CALLBACK ask_to_close(HWND window, LPARAM parameter)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): how Windows hands a callback its data
    const auto& request = *reinterpret_cast<const close_request*>(parameter);
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    if (std::ranges::find(*request.processes, owner) != request.processes->end() &&
        (request.windows == asked_windows::all || !is_desktop_window(window))) {
        PostMessageW(window, WM_CLOSE, 0, 0);
    }
    return TRUE;
}

std::vector<kernel_handle> open_all(const process_list& processes)
{
    std::vector<kernel_handle> opened;
    for (const DWORD process : processes) {
        if (kernel_handle handle{OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, process)}) {
            opened.push_back(std::move(handle));
        }
    }
    return opened;
}

} // namespace

bool is_desktop_class(std::wstring_view window_class) noexcept
{
    static constexpr std::array<std::wstring_view, 4> classes{
        L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"};
    return std::ranges::find(classes, window_class) != classes.end();
}

void ask_windows_to_close(const process_list& processes, asked_windows windows) noexcept
{
    const close_request request{.processes = &processes, .windows = windows};
    EnumWindows(ask_to_close, reinterpret_cast<LPARAM>(&request));
}

DWORD time_left(ULONGLONG deadline) noexcept
{
    const ULONGLONG now = GetTickCount64();
    return now < deadline ? static_cast<DWORD>(deadline - now) : 0;
}

void close_processes(const process_list& processes, DWORD timeout_ms)
{
    if (processes.empty()) {
        return;
    }
    ask_windows_to_close(processes, asked_windows::all_but_desktop);
    std::vector<kernel_handle> opened = open_all(processes);
    const ULONGLONG deadline = GetTickCount64() + timeout_ms;
    for (kernel_handle& process : opened) {
        if (WaitForSingleObject(process.get(), time_left(deadline)) != WAIT_OBJECT_0 &&
            TerminateProcess(process.get(), 1)) {
            WaitForSingleObject(process.get(), 5000);
        }
        process = {};
    }
}

void log_process_group(const log_callback& log, const std::wstring& label, const process_list& processes)
{
    if (!log) {
        return;
    }
    std::wstring line = label + (processes.empty() ? L": none running." : L": closing");
    for (const DWORD process : processes) {
        line.append(L" ").append(std::to_wstring(process));
    }
    log(line);
}

UINT close_our_processes(MSIHANDLE session)
{
    const std::wstring record = explorer_session_record();
    for (const wchar_t* property : {L"restore_explorer", L"rollback_explorer"}) {
        if (MsiSetPropertyW(session, property, record.c_str()) != ERROR_SUCCESS) {
            return ERROR_INSTALL_FAILURE;
        }
    }
    const log_callback log = [&](const std::wstring& text) {
        msi_log(session, L"Custom action: close_and_kill_our_processes: " + text);
    };
    log(L"Starting...");

    name_list residents = our_process_images();
    residents.emplace_back(L"Quorbel.SystemTray.exe"); // only here is the tray closed
    const process_list running = find_processes_by_image(residents, listing::lenient);
    log_process_group(log, L"Resident processes", running);
    close_processes(running, 5000);

    const process_list hosts = find_shell_hosts(shell_host_images(), our_shell_modules());
    log_process_group(log, L"Shell extension hosts", hosts);
    close_processes(hosts, 1000);

    release_hook(session);
    log(L"Completed.");
    return ERROR_SUCCESS;
}

} // namespace custom_actions
