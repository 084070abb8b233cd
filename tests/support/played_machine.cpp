#include "tests/support/played_machine.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <userenv.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

namespace test_support {
namespace {

// Whoever waits for it does not wait: it does for a program that has ended, as for anything else to close.
HANDLE new_handle()
{
    return CreateEventW(nullptr, TRUE, TRUE, nullptr);
}

BOOL close(void* handle)
{
    EXPECT_TRUE(CloseHandle(handle)) << "closed, but not open";
    return TRUE;
}

BOOL fail_with(DWORD code)
{
    SetLastError(code);
    return FALSE;
}

BOOL give_ended_process(PROCESS_INFORMATION& started)
{
    started = {.hProcess = new_handle(), .hThread = new_handle(), .dwProcessId = 0, .dwThreadId = 0};
    return TRUE;
}

constexpr auto succeed = [](auto...) { return TRUE; };

} // namespace

template <function_name Name, class Function, class Answer>
void played_machine::answer(HMODULE module, Answer result)
{
    interceptions_.push_back(std::make_shared<intercepted_import<Name, Function>>(module, std::move(result)));
}

played_machine::played_machine(HMODULE module) : clock_{module}
{
    play_snapshots(module);
    play_programs(module);
    play_service(module);
}

void played_machine::begin_anew(DWORD search_state, std::wstring_view ended)
{
    for (auto& [process, listed] : programs_) {
        listed.running = listed.name != ended;
    }
    search_state_ = search_state;
    search_start_type_ = SERVICE_AUTO_START;
}

played_machine::program* played_machine::find(DWORD process)
{
    const auto found = programs_.find(process);
    return found == programs_.end() ? nullptr : &found->second;
}

// A snapshot has what is there when it is looked at: each program once, with one thread, itself as its first
// module and the library that it has loaded.
void played_machine::play_snapshots(HMODULE module)
{
    const auto next = [this](HANDLE, auto* entry) {
        auto found = programs_.lower_bound(next_);
        while (found != programs_.end() && !found->second.running) {
            ++found;
        }
        if (found == programs_.end()) {
            return fail_with(ERROR_NO_MORE_FILES);
        }
        next_ = found->first + 1;
        if constexpr (std::is_same_v<decltype(entry), PROCESSENTRY32W*>) {
            entry->th32ProcessID = found->first;
            *std::ranges::copy(found->second.name, entry->szExeFile).out = L'\0';
        } else {
            entry->th32OwnerProcessID = found->first;
        }
        return TRUE;
    };
    const auto first = [this, next](HANDLE snapshot, auto* entry) {
        next_ = 0;
        return next(snapshot, entry);
    };
    answer<"CreateToolhelp32Snapshot", decltype(CreateToolhelp32Snapshot)>(
        module, [this](DWORD, DWORD process) {
            inspected_ = process;
            return new_handle();
        });
    answer<"Process32FirstW", decltype(Process32FirstW)>(module, first);
    answer<"Process32NextW", decltype(Process32NextW)>(module, next);
    answer<"Thread32First", decltype(Thread32First)>(module, first);
    answer<"Thread32Next", decltype(Thread32Next)>(module, next);
    answer<"Module32FirstW", decltype(Module32FirstW)>(module, [this](HANDLE, MODULEENTRY32W* entry) {
        const program& inspected = programs_.at(inspected_);
        *std::ranges::copy(inspected.name, entry->szModule).out = L'\0';
        at_library_ = !inspected.library.empty();
        return TRUE;
    });
    answer<"Module32NextW", decltype(Module32NextW)>(module, [this](HANDLE, MODULEENTRY32W* entry) {
        *std::ranges::copy(programs_.at(inspected_).library, entry->szModule).out = L'\0';
        return std::exchange(at_library_, false) ? TRUE : fail_with(ERROR_NO_MORE_FILES);
    });
}

void played_machine::play_programs(HMODULE module)
{
    answer<"OpenProcess", decltype(OpenProcess)>(module, [this](DWORD access, BOOL inherit, DWORD process) {
        const program* const found = find(process);
        if (found == nullptr || found->running) {
            return OpenProcess(access | PROCESS_QUERY_LIMITED_INFORMATION, inherit, process);
        }
        SetLastError(ERROR_INVALID_PARAMETER);
        return HANDLE{};
    });
    const auto of_listed = [this](auto result) {
        return [this, result](HANDLE object, auto...) {
            const DWORD last_error = GetLastError();
            program* const found = find(GetProcessId(object));
            SetLastError(last_error);
            return found == nullptr ? std::nullopt : std::optional{result(*found)};
        };
    };
    answer<"TerminateProcess", decltype(TerminateProcess)>(module, of_listed([](program& listed) {
                                                               listed.running = false;
                                                               return TRUE;
                                                           }));
    answer<"WaitForSingleObject", decltype(WaitForSingleObject)>(
        module,
        of_listed([](const program& listed) { return listed.running ? WAIT_TIMEOUT : WAIT_OBJECT_0; }));
    answer<"PostMessageW", decltype(PostMessageW)>(module, [this](HWND window, UINT message, WPARAM, LPARAM) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (program* const found = find(owner); found != nullptr && found->polite && message == WM_CLOSE) {
            found->running = false;
        }
        return TRUE;
    });
    answer<"PostThreadMessageW", decltype(PostThreadMessageW)>(module, succeed);
    answer<"CreateEnvironmentBlock", decltype(CreateEnvironmentBlock)>(
        module, [](LPVOID* environment, HANDLE, BOOL) {
            *environment = new_handle();
            return TRUE;
        });
    answer<"DestroyEnvironmentBlock", decltype(DestroyEnvironmentBlock)>(module, close);
    answer<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)>(
        module, [this](HANDLE, LPCWSTR path, LPWSTR, auto... others) {
            for (auto& [process, listed] : programs_) {
                listed.running = listed.running || std::wstring_view{path}.ends_with(listed.name);
            }
            return give_ended_process(*std::get<7>(std::tuple{others...}));
        });
    answer<"CreateProcessW", decltype(CreateProcessW)>(module, [](LPCWSTR, LPWSTR, auto... others) {
        const auto all = std::tuple{others...};
        for (auto* const stream : {std::get<6>(all)->hStdOutput, std::get<6>(all)->hStdError}) {
            DWORD written = 0;
            WriteFile(stream, "text", 4, &written, nullptr);
        }
        return give_ended_process(*std::get<7>(all));
    });
    answer<"GetExitCodeProcess", decltype(GetExitCodeProcess)>(module, [](HANDLE, DWORD* code) {
        *code = 0;
        return TRUE;
    });
    // A log is there when it is looked for, with what the scripts that ask would have printed.
    answer<"CreateFileW", decltype(CreateFileW)>(module, [](LPCWSTR path, auto...) -> std::optional<HANDLE> {
        if (std::wstring_view{path}.ends_with(L".log")) {
            std::ofstream{std::filesystem::path{path}} << "QBL_REGISTERED";
        }
        return std::nullopt;
    });
}

void played_machine::play_service(HMODULE module)
{
    const auto open = [](auto...) { return reinterpret_cast<SC_HANDLE>(new_handle()); };
    answer<"OpenSCManagerW", decltype(OpenSCManagerW)>(module, open);
    answer<"OpenServiceW", decltype(OpenServiceW)>(module, open);
    answer<"CloseServiceHandle", decltype(CloseServiceHandle)>(module, close);
    // What is pending is done when it has been seen once.
    answer<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)>(
        module, [this](SC_HANDLE, SC_STATUS_TYPE, LPBYTE status, DWORD, LPDWORD) {
            SERVICE_STATUS_PROCESS told{};
            told.dwCurrentState = search_state_;
            std::memcpy(status, &told, sizeof told);
            if (search_state_ == SERVICE_STOP_PENDING) {
                search_state_ = SERVICE_STOPPED;
            } else if (search_state_ == SERVICE_START_PENDING) {
                search_state_ = SERVICE_RUNNING;
            }
            return TRUE;
        });
    answer<"ControlService", decltype(ControlService)>(module, [this](auto...) {
        search_state_ = SERVICE_STOP_PENDING;
        return TRUE;
    });
    answer<"StartServiceW", decltype(StartServiceW)>(module, [this](auto...) {
        if (search_start_type_ == SERVICE_DISABLED) {
            return fail_with(ERROR_SERVICE_DISABLED);
        }
        search_state_ = SERVICE_START_PENDING;
        return TRUE;
    });
    answer<"QueryServiceConfigW", decltype(QueryServiceConfigW)>(
        module, [this](SC_HANDLE, LPQUERY_SERVICE_CONFIGW configuration, DWORD size, LPDWORD needed) {
            *needed = sizeof *configuration;
            if (size < sizeof *configuration) {
                return fail_with(ERROR_INSUFFICIENT_BUFFER);
            }
            configuration->dwStartType = search_start_type_;
            return TRUE;
        });
    answer<"QueryServiceConfig2W", decltype(QueryServiceConfig2W)>(
        module, [](SC_HANDLE, DWORD, LPBYTE delayed, DWORD, LPDWORD) {
            constexpr SERVICE_DELAYED_AUTO_START_INFO told{.fDelayedAutostart = TRUE};
            std::memcpy(delayed, &told, sizeof told);
            return TRUE;
        });
    answer<"ChangeServiceConfigW", decltype(ChangeServiceConfigW)>(
        module, [this](SC_HANDLE, DWORD, DWORD start_type, auto...) {
            search_start_type_ = start_type;
            return TRUE;
        });
    answer<"ChangeServiceConfig2W", decltype(ChangeServiceConfig2W)>(module, succeed);
}

} // namespace test_support
