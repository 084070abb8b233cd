#include "tests/support/fake_machine.h"

#include <gtest/gtest.h>
#include <msiquery.h>
#include <tlhelp32.h>

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

constexpr auto close = [](HANDLE handle) { EXPECT_TRUE(CloseHandle(handle)) << "closes what is not open"; };

} // namespace

fake_machine::fake_machine(HMODULE module) : module_{module}
{
    answer("GetTickCount64", [this] { return now_; });
    answer("Sleep", [this](DWORD milliseconds) { now_ += milliseconds; });
    fake_snapshots();
    fake_programs();
    fake_scripts();
    fake_service();
    answer("MsiCreateRecord", [this]() -> std::optional<word> {
        ++open_records_;
        return std::nullopt;
    });
    answer("MsiCloseHandle", [this](MSIHANDLE record) -> std::optional<word> {
        --open_records_;
        EXPECT_NE(MsiRecordGetFieldCount(record), ~0U) << "not an open record: " << record;
        return std::nullopt;
    });
    // With one separator at the end.
    answer("MsiSetTargetPathW", [](MSIHANDLE session, LPCWSTR folder, LPCWSTR path) {
        return MsiSetPropertyW(session, folder, (path + std::wstring{L"\\"}).c_str());
    });
    answer(
        "MsiGetComponentPathExW",
        [this](LPCWSTR product, LPCWSTR component, LPCWSTR user, DWORD context, LPWSTR path, DWORD* size) {
            const auto found = key_paths.find(product + std::wstring{component});
            if (found == key_paths.end() || user != nullptr || context != MSIINSTALLCONTEXT_MACHINE) {
                return INSTALLSTATE_UNKNOWN;
            }
            *size = static_cast<DWORD>(found->second.copy(path, *size)); // the buffer is filled with zeros
            return INSTALLSTATE_LOCAL;
        });
}

// A snapshot lists each running program once. A program has two modules: one without a name and its library.
void fake_machine::fake_snapshots()
{
    answer("CreateToolhelp32Snapshot", [this](DWORD what, DWORD id) {
        if ((what & TH32CS_SNAPMODULE) != 0) {
            library_ = programs.contains(id) ? std::optional{programs.at(id).library} : std::nullopt;
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
    answer("PostThreadMessageW", [] {});
    answer("Module32FirstW", [] {});
    answer("Module32NextW", [this](HANDLE, MODULEENTRY32W* entry) {
        if (!library_) {
            return refuse(ERROR_NO_MORE_FILES);
        }
        *std::ranges::copy(*library_, entry->szModule).out = L'\0';
        library_.reset();
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
        const bool gone = programs.contains(process) && !runs(process);
        return OpenProcess(access | PROCESS_QUERY_LIMITED_INFORMATION, inherit, gone ? 0 : process);
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
    });
    answer("PostMessageW", [this](HWND window, UINT message) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (message == WM_CLOSE && programs[owner].library.empty()) {
            std::erase(running, owner);
        }
    });
}

// Scripts, and Explorer. What is started has ended.
void fake_machine::fake_scripts()
{
    answer("CreateEnvironmentBlock", [](HANDLE* environment) { *environment = new_handle(); });
    answer("DestroyEnvironmentBlock", close);
    answer(
        "CreateProcessAsUserW",
        [this](word, LPCWSTR path, word, word, word, word, word, word, word, word, PROCESS_INFORMATION* out) {
            for (const auto& [process, started] : programs) {
                if (std::wstring_view{path}.ends_with(started.name)) {
                    running.push_back(process);
                }
            }
            *out = {new_handle(), new_handle(), 0, 0};
        });
    answer(
        "CreateProcessW",
        [](word, word, word, word, word, word, word, word, STARTUPINFOW* startup, PROCESS_INFORMATION* out) {
            for (HANDLE stream : {startup->hStdOutput, startup->hStdError}) {
                DWORD written = 0;
                WriteFile(stream, "<text>", 6, &written, nullptr);
            }
            *out = {new_handle(), new_handle(), 0, 0};
        });
    answer("GetExitCodeProcess", [this](HANDLE, DWORD* code) { *code = script_result; });
    // A script's log appears when it is opened, with what scripts print of a package: the last one is not
    // registered, the registration of the others differs.
    answer("CreateFileW", [](LPCWSTR path) -> std::optional<HANDLE> {
        if (const std::wstring_view log{path}; log.ends_with(L"capture-7.log")) {
            std::ofstream{path} << "QBL_ABSENT";
        } else if (log.ends_with(L".log")) {
            std::ofstream{path} << "QBL_REGISTERED QBL_RECOVERY_NORMALIZES_REGISTRATION";
        }
        return std::nullopt;
    });
}

void fake_machine::fake_service()
{
    answer("OpenSCManagerW", new_handle);
    answer("OpenServiceW", [this] {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return search_states.empty() ? nullptr : new_handle();
    });
    answer("CloseServiceHandle", close);
    answer("ControlService", [this] { search_states = {SERVICE_STOPPED}; });
    answer("StartServiceW", [this] { search_states = {SERVICE_RUNNING}; });
    answer("QueryServiceStatusEx", [this](SC_HANDLE, DWORD, SERVICE_STATUS_PROCESS* status) {
        status->dwCurrentState = search_states.front();
        if (search_states.size() != 1) {
            search_states.erase(search_states.begin());
        }
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
    answer("ChangeServiceConfigW", [this](SC_HANDLE, DWORD, DWORD start) { search_start = start; });
    answer("QueryServiceConfig2W", [this](SC_HANDLE, DWORD, SERVICE_DELAYED_AUTO_START_INFO* info) {
        info->fDelayedAutostart = search_delayed;
    });
    answer("ChangeServiceConfig2W", [this](SC_HANDLE, DWORD, SERVICE_DELAYED_AUTO_START_INFO* info) {
        search_delayed = info->fDelayedAutostart != FALSE;
    });
}

} // namespace test_support
