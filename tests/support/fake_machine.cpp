#include "tests/support/fake_machine.h"

#include "tests/support/faults.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <userenv.h>

#include <algorithm>
#include <fstream>

namespace test_support {
namespace {

// A signalled handle: stands for a program that has ended, or for anything else that must be closed.
HANDLE new_handle()
{
    return CreateEventW(nullptr, TRUE, TRUE, nullptr);
}

BOOL refuse(DWORD code)
{
    SetLastError(code);
    return FALSE;
}

word return_ended_process(word information)
{
    *from_word<PROCESS_INFORMATION*>(information) = {
        .hProcess = new_handle(), .hThread = new_handle(), .dwProcessId = 0, .dwThreadId = 0};
    return TRUE;
}

constexpr auto succeed = [] { return TRUE; };

constexpr auto close = [](void* handle) {
    EXPECT_TRUE(CloseHandle(handle)) << "closes what is not open";
    return TRUE;
};

} // namespace

fake_machine::fake_machine(HMODULE module) : module_{module}
{
    fake_time();
    fake_snapshots();
    fake_programs();
    fake_scripts();
    fake_service();
}

void fake_machine::fake_time()
{
    answer("GetTickCount64", [this] { return now_; });
    answer("Sleep", [this](DWORD milliseconds) {
        now_ += milliseconds;
        return 0;
    });
}

// A snapshot lists each running program once. A program has two modules: one without a name and its library.
void fake_machine::fake_snapshots()
{
    answer("CreateToolhelp32Snapshot", [this](DWORD what, DWORD process) {
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
            return refuse(ERROR_NO_MORE_FILES);
        }
        entry->th32ProcessID = running[listed_++];
        *std::ranges::copy(programs.at(entry->th32ProcessID).name, entry->szExeFile).out = L'\0';
        return TRUE;
    };
    answer("Process32FirstW", next_process);
    answer("Process32NextW", next_process);
    const auto next_thread = [this](HANDLE, THREADENTRY32* entry) {
        if (listed_ >= running.size()) {
            return refuse(ERROR_NO_MORE_FILES);
        }
        entry->th32ThreadID = entry->th32OwnerProcessID = running[listed_++];
        return TRUE;
    };
    answer("Thread32First", next_thread);
    answer("Thread32Next", next_thread);
    answer("PostThreadMessageW", succeed);
    answer("Module32FirstW", succeed);
    answer("Module32NextW", [this](HANDLE, MODULEENTRY32W* entry) {
        const auto inspected = inspected_ ? programs.find(*inspected_) : programs.end();
        inspected_.reset();
        if (inspected == programs.end()) {
            return refuse(ERROR_NO_MORE_FILES);
        }
        *std::ranges::copy(inspected->second.library, entry->szModule).out = L'\0';
        return TRUE;
    });
}

void fake_machine::fake_programs()
{
    answer("ProcessIdToSessionId", [this](DWORD process, DWORD* session) -> std::optional<BOOL> {
        const auto found = programs.find(process);
        if (found == programs.end() || !found->second.session) {
            return std::nullopt;
        }
        *session = *found->second.session;
        return found->second.hidden && !thread_is_impersonating() ? refuse(ERROR_ACCESS_DENIED) : TRUE;
    });
    answer("GetTokenInformation", [this](HANDLE, int what, DWORD* value) -> std::optional<BOOL> {
        const auto self = programs.find(GetCurrentProcessId());
        if (what != TokenSessionId || self == programs.end()) {
            return std::nullopt;
        }
        *value = self->second.session.value();
        return TRUE;
    });
    answer("OpenProcess", [this](DWORD access, BOOL inherit, DWORD process) {
        if (runs(process) || !programs.contains(process)) {
            return OpenProcess(access | PROCESS_QUERY_LIMITED_INFORMATION, inherit, process);
        }
        SetLastError(ERROR_INVALID_PARAMETER);
        return HANDLE{};
    });
    answer("WaitForSingleObject", [this](HANDLE object, DWORD limit) -> std::optional<DWORD> {
        const DWORD process = GetProcessId(object);
        if (process == 0 || !programs.contains(process)) {
            return std::nullopt;
        }
        if (!runs(process)) {
            return WAIT_OBJECT_0;
        }
        now_ += limit;
        return WAIT_TIMEOUT;
    });
    answer("TerminateProcess", [this](HANDLE process, UINT) {
        const DWORD id = GetProcessId(process);
        if (std::erase(running, id) != 0 && restarts) {
            terminated_.push_back(id);
        }
        return TRUE;
    });
    answer("PostMessageW", [this](HWND window, UINT message) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (message == WM_CLOSE && programs[owner].library.empty()) {
            std::erase(running, owner);
        }
        return TRUE;
    });
}

// Scripts, and Explorer.
void fake_machine::fake_scripts()
{
    answer("CreateEnvironmentBlock", [](LPVOID* environment) {
        *environment = new_handle();
        return TRUE;
    });
    answer("DestroyEnvironmentBlock", close);
    answer("CreateProcessAsUserW", [this](const import_hook&, const words& arguments) {
        const auto path = std::wstring_view{from_word<LPCWSTR>(arguments[1])};
        for (const auto& [process, started] : programs) {
            if (path.ends_with(started.name)) {
                running.push_back(process);
            }
        }
        return return_ended_process(arguments[10]);
    });
    answer("CreateProcessW", [](const import_hook&, const words& arguments) {
        const auto* const startup = from_word<const STARTUPINFOW*>(arguments[8]);
        for (HANDLE stream : {startup->hStdOutput, startup->hStdError}) {
            DWORD written = 0;
            WriteFile(stream, "<text>", 6, &written, nullptr);
        }
        return return_ended_process(arguments[9]);
    });
    answer("GetExitCodeProcess", [this](HANDLE, DWORD* code) {
        *code = script_result;
        return TRUE;
    });
    // A script's log appears when it is opened, with the line that verifying scripts print.
    answer("CreateFileW", [](LPCWSTR path) -> std::optional<HANDLE> {
        if (std::wstring_view{path}.ends_with(L".log")) {
            std::ofstream{path} << "QBL_REGISTERED";
        }
        return std::nullopt;
    });
}

void fake_machine::fake_service()
{
    const auto open = [] { return new_handle(); };
    const auto bring_to = [this](DWORD state) {
        return [this, state] {
            search_states.erase(search_states.begin());
            search_states.push_back(state);
            return TRUE;
        };
    };
    answer("OpenSCManagerW", open);
    answer("OpenServiceW", [this, open] {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return search_states.empty() ? nullptr : open();
    });
    answer("CloseServiceHandle", close);
    answer("ControlService", bring_to(SERVICE_STOPPED));
    answer("StartServiceW", bring_to(SERVICE_RUNNING));
    answer("QueryServiceStatusEx", [this](SC_HANDLE, DWORD, SERVICE_STATUS_PROCESS* status) {
        status->dwCurrentState = search_states.front();
        if (search_states.size() != 1) {
            search_states.erase(search_states.begin());
        }
        return TRUE;
    });
    answer(
        "QueryServiceConfigW", [this](SC_HANDLE, QUERY_SERVICE_CONFIGW* config, DWORD size, DWORD* needed) {
            *needed = sizeof *config;
            if (size < sizeof *config) {
                return refuse(ERROR_INSUFFICIENT_BUFFER);
            }
            config->dwStartType = search_start;
            return TRUE;
        });
    answer("ChangeServiceConfigW", [this](SC_HANDLE, DWORD, DWORD start) {
        search_start = start;
        return TRUE;
    });
    answer("QueryServiceConfig2W", [this](SC_HANDLE, DWORD, BYTE* delayed) {
        *delayed = search_delayed ? TRUE : FALSE;
        return TRUE;
    });
    answer("ChangeServiceConfig2W", [this](SC_HANDLE, DWORD, const SERVICE_DELAYED_AUTO_START_INFO* info) {
        search_delayed = info->fDelayedAutostart != FALSE;
        return TRUE;
    });
}

} // namespace test_support
