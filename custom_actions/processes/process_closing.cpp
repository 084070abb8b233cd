#include "custom_actions/processes/process_closing.h"

#include "custom_actions/common/contains.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/hook_release.h"
#include "custom_actions/processes/program_tables.h"

#include <array>
#include <utility>
#include <vector>

namespace custom_actions {
namespace {

constexpr DWORD RESIDENT_LIMIT_MS = 5000;
constexpr DWORD HOST_LIMIT_MS = 1000;
constexpr DWORD TERMINATION_LIMIT_MS = 5000;

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
    return length != 0 && contains(DESKTOP_CLASSES, std::wstring_view{window_class.data()});
}

BOOL CALLBACK ask_to_close(HWND window, LPARAM parameter)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): how Windows hands a callback its data
    const auto& request = *reinterpret_cast<const close_request*>(parameter);
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    if (contains(*request.processes, owner) &&
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
            WaitForSingleObject(process.get(), TERMINATION_LIMIT_MS);
        }
        process = {};
    }
}

void log_process_group(const log_callback& log, const std::wstring& label, const process_list& processes)
{
    if (log) {
        log(label + (processes.empty() ? L": none running." : L": closing") + process_ids_text(processes));
    }
}

void close_our_processes(const action_log& log)
{
    const std::wstring record = explorer_session_record();
    for (const wchar_t* property : {L"restore_explorer", L"rollback_explorer"}) {
        set_property(log.session(), property, record, "Cannot record Explorer session");
    }
    const auto line = [&log](const std::wstring& text) { log.line(text); };
    line(L"Starting...");

    const process_list residents = find_processes_by_image(RESIDENT_IMAGES, listing::lenient);
    log_process_group(line, L"Resident processes", residents);
    close_processes(residents, RESIDENT_LIMIT_MS);

    const process_list hosts = find_shell_hosts(shell_host_images, our_shell_modules);
    log_process_group(line, L"Shell extension hosts", hosts);
    close_processes(hosts, HOST_LIMIT_MS);

    release_hook(log.session());
    line(L"Completed.");
}

} // namespace custom_actions
