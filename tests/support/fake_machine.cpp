#include "tests/support/fake_machine.h"

#include "tests/support/faults.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <userenv.h>

#include <algorithm>
#include <fstream>
#include <tuple>

namespace test_support {
namespace {

// A signalled handle: stands for a program that has ended, or for anything else that must be closed.
HANDLE new_handle()
{
    return CreateEventW(nullptr, TRUE, TRUE, nullptr);
}

BOOL fail_with(DWORD code)
{
    SetLastError(code);
    return FALSE;
}

BOOL return_ended_process(PROCESS_INFORMATION& started)
{
    started = {.hProcess = new_handle(), .hThread = new_handle(), .dwProcessId = 0, .dwThreadId = 0};
    return TRUE;
}

ULONGLONG now = 0; // in milliseconds

ULONGLONG WINAPI tick_count()
{
    return 0xFFFFFF00 + now; // soon more than 32 bits
}

void WINAPI sleep(DWORD milliseconds)
{
    now += milliseconds;
}

constexpr auto succeed = [](auto...) { return TRUE; };

constexpr auto close = [](void* handle) {
    EXPECT_TRUE(CloseHandle(handle)) << "closes what is not open";
    return TRUE;
};

} // namespace

template <function_name Name, class Function, class Answer>
void fake_machine::answer(Function* replaced, Answer result)
{
    interceptions_.push_back(intercept<Name>(module_, replaced, std::move(result)));
}

fake_machine::fake_machine(HMODULE module)
    : module_{module}, clock_{module, "GetTickCount64", &tick_count}, sleep_{module, "Sleep", &sleep}
{
    now = 0;
    fake_snapshots();
    fake_programs();
    fake_service();
}

// A snapshot lists each running program once. A program has two modules: one without a name and its library.
void fake_machine::fake_snapshots()
{
    answer<"CreateToolhelp32Snapshot">(&CreateToolhelp32Snapshot, [this](DWORD what, DWORD process) {
        if ((what & TH32CS_SNAPMODULE) != 0) {
            inspected_ = process;
        } else {
            listed_ = 0;
            running.insert(running.end(), terminated_.begin(), terminated_.end());
            terminated_.clear();
        }
        return new_handle();
    });
    const auto next_process = [this](HANDLE, PROCESSENTRY32W* entry) {
        if (listed_ >= running.size()) {
            return fail_with(ERROR_NO_MORE_FILES);
        }
        entry->th32ProcessID = running[listed_++];
        *std::ranges::copy(programs.at(entry->th32ProcessID).name, entry->szExeFile).out = L'\0';
        return TRUE;
    };
    answer<"Process32FirstW">(&Process32FirstW, next_process);
    answer<"Process32NextW">(&Process32NextW, next_process);
    const auto next_thread = [this](HANDLE, THREADENTRY32* entry) {
        if (listed_ >= running.size()) {
            return fail_with(ERROR_NO_MORE_FILES);
        }
        entry->th32ThreadID = entry->th32OwnerProcessID = running[listed_++];
        return TRUE;
    };
    answer<"Thread32First">(&Thread32First, next_thread);
    answer<"Thread32Next">(&Thread32Next, next_thread);
    answer<"PostThreadMessageW">(&PostThreadMessageW, succeed);
    answer<"Module32FirstW">(&Module32FirstW, succeed);
    answer<"Module32NextW">(&Module32NextW, [this](HANDLE, MODULEENTRY32W* entry) {
        const auto inspected = inspected_ ? programs.find(*inspected_) : programs.end();
        inspected_.reset();
        if (inspected == programs.end()) {
            return fail_with(ERROR_NO_MORE_FILES);
        }
        *std::ranges::copy(inspected->second.library, entry->szModule).out = L'\0';
        return TRUE;
    });
}

void fake_machine::fake_programs()
{
    answer<"ProcessIdToSessionId">(
        &ProcessIdToSessionId, [this](DWORD process, DWORD* session) -> std::optional<BOOL> {
            const auto found = programs.find(process);
            if (found == programs.end() || !found->second.session) {
                return std::nullopt;
            }
            *session = *found->second.session;
            return found->second.hidden && !thread_is_impersonating() ? fail_with(ERROR_ACCESS_DENIED) : TRUE;
        });
    answer<"OpenProcess">(&OpenProcess, [this](DWORD access, BOOL inherit, DWORD process) {
        if (runs(process) || !programs.contains(process)) {
            return OpenProcess(access | PROCESS_QUERY_LIMITED_INFORMATION, inherit, process);
        }
        SetLastError(ERROR_INVALID_PARAMETER);
        return HANDLE{};
    });
    answer<"WaitForSingleObject">(
        &WaitForSingleObject, [this](HANDLE object, DWORD limit) -> std::optional<DWORD> {
            const DWORD process = GetProcessId(object);
            if (process == 0 || !programs.contains(process)) {
                return std::nullopt;
            }
            if (!runs(process)) {
                return WAIT_OBJECT_0;
            }
            now += limit;
            return WAIT_TIMEOUT;
        });
    answer<"TerminateProcess">(&TerminateProcess, [this](HANDLE process, UINT) {
        const DWORD id = GetProcessId(process);
        if (std::erase(running, id) != 0 && restarts) {
            terminated_.push_back(id);
        }
        return TRUE;
    });
    answer<"PostMessageW">(&PostMessageW, [this](HWND window, UINT message, auto...) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (message == WM_CLOSE && programs[owner].library.empty()) {
            std::erase(running, owner);
        }
        return TRUE;
    });
    answer<"CreateEnvironmentBlock">(&CreateEnvironmentBlock, [](LPVOID* environment, HANDLE, BOOL) {
        *environment = new_handle();
        return TRUE;
    });
    answer<"DestroyEnvironmentBlock">(&DestroyEnvironmentBlock, close);
    answer<"CreateProcessAsUserW">(
        &CreateProcessAsUserW, [this](HANDLE, LPCWSTR path, LPWSTR, auto... others) {
            for (const auto& [process, started] : programs) {
                if (std::wstring_view{path}.ends_with(started.name)) {
                    running.push_back(process);
                }
            }
            return return_ended_process(*std::get<7>(std::tuple{others...}));
        });
    answer<"CreateProcessW">(&CreateProcessW, [](LPCWSTR, LPWSTR, auto... others) {
        const auto all = std::tuple{others...};
        for (HANDLE stream : {std::get<6>(all)->hStdOutput, std::get<6>(all)->hStdError}) {
            DWORD written = 0;
            WriteFile(stream, "<text>", 6, &written, nullptr);
        }
        return return_ended_process(*std::get<7>(all));
    });
    answer<"GetExitCodeProcess">(&GetExitCodeProcess, [this](HANDLE, DWORD* code) {
        *code = script_result;
        return TRUE;
    });
    // A script's log appears when it is opened, with the line that verifying scripts print.
    answer<"CreateFileW">(&CreateFileW, [](LPCWSTR path, auto...) -> std::optional<HANDLE> {
        if (std::wstring_view{path}.ends_with(L".log")) {
            std::ofstream{path} << "QBL_REGISTERED";
        }
        return std::nullopt;
    });
}

void fake_machine::fake_service()
{
    const auto open = [](auto...) { return reinterpret_cast<SC_HANDLE>(new_handle()); };
    const auto bring_to = [this](DWORD state) {
        return [this, state](auto...) {
            search_states.erase(search_states.begin());
            search_states.push_back(state);
            return TRUE;
        };
    };
    answer<"OpenSCManagerW">(&OpenSCManagerW, open);
    answer<"OpenServiceW">(&OpenServiceW, [this, open](auto...) {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return search_states.empty() ? nullptr : open();
    });
    answer<"CloseServiceHandle">(&CloseServiceHandle, close);
    answer<"ControlService">(&ControlService, bring_to(SERVICE_STOPPED));
    answer<"StartServiceW">(&StartServiceW, bring_to(SERVICE_RUNNING));
    answer<"QueryServiceStatusEx">(&QueryServiceStatusEx, [this](auto, auto, auto* status, auto...) {
        reinterpret_cast<SERVICE_STATUS_PROCESS*>(status)->dwCurrentState = search_states.front();
        if (search_states.size() != 1) {
            search_states.erase(search_states.begin());
        }
        return TRUE;
    });
    answer<"QueryServiceConfigW">(
        &QueryServiceConfigW, [this](auto, auto* config, DWORD size, DWORD* needed) {
            *needed = sizeof *config;
            if (size < sizeof *config) {
                return fail_with(ERROR_INSUFFICIENT_BUFFER);
            }
            config->dwStartType = search_start;
            return TRUE;
        });
    answer<"ChangeServiceConfigW">(&ChangeServiceConfigW, [this](auto, auto, DWORD start, auto...) {
        search_start = start;
        return TRUE;
    });
    answer<"QueryServiceConfig2W">(&QueryServiceConfig2W, [this](auto, auto, BYTE* delayed, auto...) {
        *delayed = search_delayed ? TRUE : FALSE;
        return TRUE;
    });
    answer<"ChangeServiceConfig2W">(&ChangeServiceConfig2W, [this](auto, auto, void* info) {
        search_delayed = static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart != FALSE;
        return TRUE;
    });
}

} // namespace test_support
