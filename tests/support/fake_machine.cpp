#include "tests/support/fake_machine.h"

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

constexpr auto succeed = [](auto...) { return TRUE; };

constexpr auto close = [](void* handle) {
    EXPECT_TRUE(CloseHandle(handle)) << "closes what is not open";
    return TRUE;
};

} // namespace

template <function_name Name, class Function, class Answer>
void fake_machine::answer(Function* /*replaced*/, Answer result)
{
    interceptions_.push_back(
        std::make_shared<intercepted_import<Name, Function>>(module_, std::move(result)));
}

fake_machine::fake_machine(HMODULE module) : module_{module}, clock_{module}
{
    fake_snapshots();
    fake_programs();
    fake_service();
}

// A snapshot lists each running program once. A program has two modules: one without a name and its library.
void fake_machine::fake_snapshots()
{
    const auto next = [this](HANDLE, PROCESSENTRY32W* entry) {
        const auto found = running.upper_bound(last_listed_);
        if (found == running.end()) {
            return fail_with(ERROR_NO_MORE_FILES);
        }
        last_listed_ = entry->th32ProcessID = *found;
        *std::ranges::copy(programs.at(*found).name, entry->szExeFile).out = L'\0';
        return TRUE;
    };
    answer<"CreateToolhelp32Snapshot">(&CreateToolhelp32Snapshot, [this](DWORD, DWORD process) {
        (process == 0 ? last_listed_ : inspected_) = process;
        return new_handle();
    });
    answer<"Process32FirstW">(&Process32FirstW, next);
    answer<"Process32NextW">(&Process32NextW, next);
    answer<"Thread32First">(&Thread32First, [](auto...) { return FALSE; });
    answer<"Module32FirstW">(&Module32FirstW, succeed);
    answer<"Module32NextW">(&Module32NextW, [this](HANDLE, MODULEENTRY32W* entry) {
        const auto inspected = programs.find(std::exchange(inspected_, 0));
        if (inspected == programs.end()) {
            return fail_with(ERROR_NO_MORE_FILES);
        }
        *std::ranges::copy(inspected->second.library, entry->szModule).out = L'\0';
        return TRUE;
    });
}

void fake_machine::fake_programs()
{
    answer<"OpenProcess">(&OpenProcess, [this](DWORD access, BOOL inherit, DWORD process) {
        if (running.contains(process) || !programs.contains(process)) {
            return OpenProcess(access | PROCESS_QUERY_LIMITED_INFORMATION, inherit, process);
        }
        SetLastError(ERROR_INVALID_PARAMETER);
        return HANDLE{};
    });
    answer<"WaitForSingleObject">(&WaitForSingleObject, [this](HANDLE object, DWORD) {
        const DWORD process = GetProcessId(object);
        const DWORD result = running.contains(process) ? WAIT_TIMEOUT : WAIT_OBJECT_0;
        return programs.contains(process) ? std::optional{result} : std::nullopt;
    });
    answer<"TerminateProcess">(&TerminateProcess, [this](HANDLE process, UINT) {
        running.erase(GetProcessId(process));
        return TRUE;
    });
    answer<"PostMessageW">(&PostMessageW, [this](HWND window, UINT message, auto...) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (message == WM_CLOSE && programs[owner].library.empty()) {
            running.erase(owner);
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
                    running.insert(process);
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
    answer<"GetExitCodeProcess">(&GetExitCodeProcess, [](HANDLE, DWORD* code) {
        *code = 0;
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
            search_state = state;
            return TRUE;
        };
    };
    answer<"OpenSCManagerW">(&OpenSCManagerW, open);
    answer<"OpenServiceW">(&OpenServiceW, open);
    answer<"CloseServiceHandle">(&CloseServiceHandle, close);
    answer<"ControlService">(&ControlService, bring_to(SERVICE_STOPPED));
    answer<"StartServiceW">(&StartServiceW, bring_to(SERVICE_RUNNING));
    answer<"QueryServiceStatusEx">(&QueryServiceStatusEx, [this](auto, auto, auto* status, auto...) {
        reinterpret_cast<SERVICE_STATUS_PROCESS*>(status)->dwCurrentState = search_state;
        if (search_state == SERVICE_STOP_PENDING) { // for one query
            search_state = SERVICE_STOPPED;
        }
        return TRUE;
    });
    answer<"QueryServiceConfigW">(&QueryServiceConfigW, [](auto, auto* config, DWORD size, DWORD* needed) {
        *needed = sizeof *config;
        if (size < sizeof *config) {
            return fail_with(ERROR_INSUFFICIENT_BUFFER);
        }
        config->dwStartType = SERVICE_AUTO_START;
        return TRUE;
    });
    answer<"QueryServiceConfig2W">(&QueryServiceConfig2W, [](auto, auto, BYTE* delayed, auto...) {
        *delayed = TRUE;
        return TRUE;
    });
    answer<"ChangeServiceConfigW">(&ChangeServiceConfigW, succeed);
    answer<"ChangeServiceConfig2W">(&ChangeServiceConfig2W, [](auto, auto, void* info) {
        EXPECT_TRUE(static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart)
            << "it was delayed";
        return TRUE;
    });
}

} // namespace test_support
