#include "tests/support/played_machine.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <userenv.h>

#include <algorithm>
#include <cstring>
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

constexpr auto close = [](void* handle) {
    EXPECT_TRUE(CloseHandle(handle)) << "closed, but not open";
    return TRUE;
};

} // namespace

template <function_name Name, class Function, class Answer>
void played_machine::answer(Function* /*played*/, Answer result)
{
    interceptions_.push_back(
        std::make_shared<intercepted_import<Name, Function>>(module_, std::move(result)));
}

played_machine::played_machine(HMODULE module) : module_{module}, clock_{module}
{
    play_snapshots();
    play_programs();
    play_service();
}

void played_machine::begin_anew(DWORD search_state, std::wstring_view ended)
{
    for (auto& [process, listed] : programs_) {
        listed.running = listed.name != ended;
    }
    search_state_ = search_state;
}

played_machine::program* played_machine::find(DWORD process)
{
    const auto found = programs_.find(process);
    return found == programs_.end() ? nullptr : &found->second;
}

// A snapshot has what is there when it is looked at: each program once, with one thread, and as its modules
// one of no name and the library that it has loaded.
void played_machine::play_snapshots()
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
    answer<"CreateToolhelp32Snapshot">(&CreateToolhelp32Snapshot, [this](DWORD, DWORD process) {
        inspected_ = process;
        return new_handle();
    });
    answer<"Process32FirstW">(&Process32FirstW, first);
    answer<"Process32NextW">(&Process32NextW, next);
    answer<"Thread32First">(&Thread32First, first);
    answer<"Thread32Next">(&Thread32Next, next);
    answer<"Module32FirstW">(&Module32FirstW, [this](auto...) {
        at_library_ = true;
        return TRUE;
    });
    answer<"Module32NextW">(&Module32NextW, [this](HANDLE, MODULEENTRY32W* entry) {
        *std::ranges::copy(programs_.at(inspected_).library, entry->szModule).out = L'\0';
        return std::exchange(at_library_, false) ? TRUE : fail_with(ERROR_NO_MORE_FILES);
    });
}

void played_machine::play_programs()
{
    answer<"OpenProcess">(&OpenProcess, [this](DWORD access, BOOL inherit, DWORD process) {
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
    answer<"TerminateProcess">(&TerminateProcess, of_listed([](program& listed) {
        listed.running = false;
        return TRUE;
    }));
    answer<"WaitForSingleObject">(&WaitForSingleObject, of_listed([](const program& listed) {
        return listed.running ? WAIT_TIMEOUT : WAIT_OBJECT_0;
    }));
    answer<"PostMessageW">(&PostMessageW, [this](HWND window, UINT message, WPARAM, LPARAM) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (program* const found = find(owner); found != nullptr && found->polite && message == WM_CLOSE) {
            found->running = false;
        }
        return TRUE;
    });
    answer<"PostThreadMessageW">(&PostThreadMessageW, succeed);
    answer<"CreateEnvironmentBlock">(&CreateEnvironmentBlock, [](LPVOID* environment, HANDLE, BOOL) {
        *environment = new_handle();
        return TRUE;
    });
    answer<"DestroyEnvironmentBlock">(&DestroyEnvironmentBlock, close);
    answer<"CreateProcessAsUserW">(
        &CreateProcessAsUserW, [this](HANDLE, LPCWSTR path, LPWSTR, auto... others) {
            for (auto& [process, listed] : programs_) {
                listed.running = listed.running || std::wstring_view{path}.ends_with(listed.name);
            }
            return give_ended_process(*std::get<7>(std::tuple{others...}));
        });
    answer<"CreateProcessW">(&CreateProcessW, [](LPCWSTR, LPWSTR, auto... others) {
        const auto all = std::tuple{others...};
        for (HANDLE stream : {std::get<6>(all)->hStdOutput, std::get<6>(all)->hStdError}) {
            DWORD written = 0;
            WriteFile(stream, "text", 4, &written, nullptr);
        }
        return give_ended_process(*std::get<7>(all));
    });
    answer<"GetExitCodeProcess">(&GetExitCodeProcess, [](HANDLE, DWORD* code) {
        *code = 0;
        return TRUE;
    });
    // A log is there when it is looked for, with what the scripts that ask would have printed.
    answer<"CreateFileW">(&CreateFileW, [](LPCWSTR path, auto...) -> std::optional<HANDLE> {
        if (std::wstring_view{path}.ends_with(L".log")) {
            std::ofstream{path} << "QBL_REGISTERED";
        }
        return std::nullopt;
    });
}

void played_machine::play_service()
{
    const auto open = [](auto...) { return reinterpret_cast<SC_HANDLE>(new_handle()); };
    const auto bring_to = [this](DWORD state) {
        return [this, state](auto...) {
            search_state_ = state;
            return TRUE;
        };
    };
    answer<"OpenSCManagerW">(&OpenSCManagerW, open);
    answer<"OpenServiceW">(&OpenServiceW, open);
    answer<"CloseServiceHandle">(&CloseServiceHandle, close);
    answer<"ControlService">(&ControlService, bring_to(SERVICE_STOP_PENDING));
    answer<"StartServiceW">(&StartServiceW, bring_to(SERVICE_START_PENDING));
    // What is pending is done when it has been seen once.
    answer<"QueryServiceStatusEx">(&QueryServiceStatusEx, [this](auto, auto, BYTE* status, auto...) {
        const DWORD next = search_state_ == SERVICE_STOP_PENDING ? SERVICE_STOPPED : SERVICE_RUNNING;
        const bool pending = search_state_ != SERVICE_STOPPED;
        SERVICE_STATUS_PROCESS told{};
        told.dwCurrentState = std::exchange(search_state_, pending ? next : search_state_);
        std::memcpy(status, &told, sizeof told);
        return TRUE;
    });
    answer<"QueryServiceConfigW">(
        &QueryServiceConfigW, [](SC_HANDLE, QUERY_SERVICE_CONFIGW* configuration, DWORD size, DWORD* needed) {
            *needed = sizeof *configuration;
            if (size < sizeof *configuration) {
                return fail_with(ERROR_INSUFFICIENT_BUFFER);
            }
            configuration->dwStartType = SERVICE_AUTO_START;
            return TRUE;
        });
    answer<"QueryServiceConfig2W">(&QueryServiceConfig2W, [](auto, auto, BYTE* delayed, auto...) {
        *delayed = TRUE; // its first byte is all that there is
        return TRUE;
    });
    answer<"ChangeServiceConfigW">(&ChangeServiceConfigW, succeed);
    answer<"ChangeServiceConfig2W">(&ChangeServiceConfig2W, succeed);
}

} // namespace test_support
