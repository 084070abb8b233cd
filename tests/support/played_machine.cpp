#include "tests/support/played_machine.h"

#include <gtest/gtest.h>
#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace test_support {
namespace {

using custom_actions::kernel_handle;

// A process that has ended with 0.
kernel_handle ended_process()
{
    std::wstring command_line = L"cmd.exe /c exit 0";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(
            nullptr, command_line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &started)) {
        throw std::runtime_error{"cmd.exe does not start"};
    }
    const kernel_handle thread{started.hThread};
    kernel_handle process{started.hProcess};
    if (WaitForSingleObject(process.get(), 20'000) != WAIT_OBJECT_0) {
        throw std::runtime_error{"cmd.exe does not end"};
    }
    return process;
}

HANDLE duplicate(const kernel_handle& handle)
{
    HANDLE copy = nullptr;
    DuplicateHandle(
        GetCurrentProcess(), handle.get(), GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return copy;
}

// The script in the command line of PowerShell.
std::wstring encoded_script(std::wstring_view command_line)
{
    const std::wstring encoded{command_line.substr(command_line.rfind(L' ') + 1)};
    std::array<BYTE, 65536> bytes{};
    auto size = static_cast<DWORD>(bytes.size());
    if (!CryptStringToBinaryW(
            encoded.c_str(), 0, CRYPT_STRING_BASE64, bytes.data(), &size, nullptr, nullptr)) {
        return {};
    }
    return {reinterpret_cast<const wchar_t*>(bytes.data()), size / sizeof(wchar_t)};
}

// Writes what the scripts that ask would print into the log that the script names.
void leave_log(const std::wstring& script)
{
    const std::wstring_view before = L"Out-File -LiteralPath '";
    const std::size_t start = script.find(before) + before.size();
    const std::wstring path = script.substr(start, script.find(L'\'', start) - start);
    const kernel_handle log{
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)};
    DWORD written = 0;
    WriteFile(log.get(), "QBL_REGISTERED", 14, &written, nullptr);
}

BOOL fail_with(DWORD code)
{
    SetLastError(code);
    return FALSE;
}

} // namespace

template <function_name Name, class Function, class Answer>
void played_machine::answer(HMODULE module, Answer answer)
{
    interceptions_.push_back(std::make_shared<intercepted_import<Name, Function>>(module, std::move(answer)));
}

played_machine::played_machine(HMODULE module) : ended_process_{ended_process()}, clock_{module}
{
    play_snapshots(module);
    play_processes(module);
    play_scripts(module);
    play_service(module);
    begin_anew();
}

played_machine::~played_machine() = default;

void played_machine::list(
    DWORD process, const std::wstring& name, bool polite, const std::wstring& loaded_library)
{
    programs_[process] = {.name = name, .library = loaded_library, .polite = polite, .running = true};
}

void played_machine::begin_anew(std::optional<DWORD> search_state)
{
    for (auto& [process, listed] : programs_) {
        listed.running = true;
    }
    search_state_ = search_state;
    search_start_type_ = SERVICE_AUTO_START;
}

void played_machine::end(DWORD process)
{
    programs_.at(process).running = false;
}

played_machine::program* played_machine::find(DWORD process)
{
    const auto found = programs_.find(process);
    return found == programs_.end() ? nullptr : &found->second;
}

played_machine::program* played_machine::find(HANDLE process)
{
    const DWORD last_error = GetLastError();
    program* const found = find(GetProcessId(process));
    SetLastError(last_error);
    return found;
}

// A snapshot has what is there when it is looked at: each program once, with one thread, itself as its first
// module and the library that it has loaded.
void played_machine::play_snapshots(HMODULE module)
{
    answer<"CreateToolhelp32Snapshot", decltype(CreateToolhelp32Snapshot)>(
        module, [this](DWORD, DWORD process) {
            inspected_ = process;
            return std::optional{duplicate(ended_process_)};
        });
    const auto process = [this](HANDLE, PROCESSENTRY32W* entry) {
        const auto found = next_running();
        if (found == programs_.end()) {
            return std::optional{fail_with(ERROR_NO_MORE_FILES)};
        }
        entry->th32ProcessID = found->first;
        *std::ranges::copy(found->second.name, entry->szExeFile).out = L'\0';
        return std::optional{TRUE};
    };
    const auto thread = [this](HANDLE, THREADENTRY32* entry) {
        const auto found = next_running();
        if (found == programs_.end()) {
            return std::optional{fail_with(ERROR_NO_MORE_FILES)};
        }
        entry->th32OwnerProcessID = found->first;
        return std::optional{TRUE};
    };
    const auto from_start = [this](const auto& next) {
        return [this, next](HANDLE snapshot, auto* entry) {
            next_ = 0;
            return next(snapshot, entry);
        };
    };
    answer<"Process32FirstW", decltype(Process32FirstW)>(module, from_start(process));
    answer<"Process32NextW", decltype(Process32NextW)>(module, process);
    answer<"Thread32First", decltype(Thread32First)>(module, from_start(thread));
    answer<"Thread32Next", decltype(Thread32Next)>(module, thread);
    answer<"Module32FirstW", decltype(Module32FirstW)>(module, [this](HANDLE, MODULEENTRY32W* entry) {
        const program& inspected = programs_.at(inspected_);
        *std::ranges::copy(inspected.name, entry->szModule).out = L'\0';
        at_library_ = !inspected.library.empty();
        return std::optional{TRUE};
    });
    answer<"Module32NextW", decltype(Module32NextW)>(module, [this](HANDLE, MODULEENTRY32W* entry) {
        if (!std::exchange(at_library_, false)) {
            return std::optional{fail_with(ERROR_NO_MORE_FILES)};
        }
        *std::ranges::copy(programs_.at(inspected_).library, entry->szModule).out = L'\0';
        return std::optional{TRUE};
    });
}

std::map<DWORD, played_machine::program>::const_iterator played_machine::next_running()
{
    auto found = programs_.lower_bound(next_);
    while (found != programs_.end() && !found->second.running) {
        ++found;
    }
    if (found != programs_.end()) {
        next_ = found->first + 1;
    }
    return found;
}

void played_machine::play_processes(HMODULE module)
{
    answer<"OpenProcess", decltype(OpenProcess)>(
        module, [this](DWORD access, BOOL inherit, DWORD process) -> std::optional<HANDLE> {
            const program* const found = find(process);
            if (found == nullptr) {
                return std::nullopt;
            }
            if (!found->running) {
                SetLastError(ERROR_INVALID_PARAMETER);
                return nullptr;
            }
            return OpenProcess(access | PROCESS_QUERY_LIMITED_INFORMATION, inherit, process);
        });
    answer<"TerminateProcess", decltype(TerminateProcess)>(
        module, [this](HANDLE process, UINT) -> std::optional<BOOL> {
            program* const found = find(process);
            if (found == nullptr) {
                return std::nullopt;
            }
            found->running = false;
            return TRUE;
        });
    answer<"WaitForSingleObject", decltype(WaitForSingleObject)>(
        module, [this](HANDLE object, DWORD) -> std::optional<DWORD> {
            const program* const found = find(object);
            if (found == nullptr) {
                return std::nullopt;
            }
            return found->running ? WAIT_TIMEOUT : WAIT_OBJECT_0;
        });
    answer<"PostMessageW", decltype(PostMessageW)>(module, [this](HWND window, UINT message, WPARAM, LPARAM) {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (program* const found = find(owner); found != nullptr && found->polite && message == WM_CLOSE) {
            found->running = false;
        }
        return std::optional{TRUE};
    });
    answer<"PostThreadMessageW", decltype(PostThreadMessageW)>(
        module, [](DWORD, UINT, WPARAM, LPARAM) { return std::optional{TRUE}; });
}

void played_machine::play_scripts(HMODULE module)
{
    answer<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)>(
        module,
        [this](
            HANDLE,
            LPCWSTR,
            LPWSTR command_line,
            LPSECURITY_ATTRIBUTES,
            LPSECURITY_ATTRIBUTES,
            BOOL,
            DWORD,
            LPVOID,
            LPCWSTR,
            LPSTARTUPINFOW,
            LPPROCESS_INFORMATION started) { return std::optional{start_as_user(command_line, *started)}; });
    answer<"CreateProcessW", decltype(CreateProcessW)>(
        module,
        [this](
            LPCWSTR,
            LPWSTR,
            LPSECURITY_ATTRIBUTES,
            LPSECURITY_ATTRIBUTES,
            BOOL,
            DWORD,
            LPVOID,
            LPCWSTR,
            LPSTARTUPINFOW startup,
            LPPROCESS_INFORMATION started) {
            for (HANDLE const stream : {startup->hStdOutput, startup->hStdError}) {
                DWORD written = 0;
                WriteFile(stream, "text", 4, &written, nullptr);
            }
            return std::optional{give_ended_process(*started)};
        });
}

BOOL played_machine::give_ended_process(PROCESS_INFORMATION& started) const
{
    started = {};
    started.hProcess = duplicate(ended_process_);
    started.hThread = duplicate(ended_process_);
    return TRUE;
}

BOOL played_machine::start_as_user(const wchar_t* command_line, PROCESS_INFORMATION& started)
{
    if (const std::wstring_view text = command_line; text.find(L"explorer.exe") != text.npos) {
        for (auto& [process, listed] : programs_) {
            listed.running = listed.running || listed.name == L"explorer.exe";
        }
    } else {
        leave_log(encoded_script(text));
    }
    return give_ended_process(started);
}

SC_HANDLE played_machine::open_service_handle()
{
    auto place = std::make_unique<char>();
    auto* const handle = reinterpret_cast<SC_HANDLE>(place.get());
    service_handles_[handle] = std::move(place);
    return handle;
}

void played_machine::play_service(HMODULE module)
{
    answer<"OpenSCManagerW", decltype(OpenSCManagerW)>(
        module, [this](LPCWSTR, LPCWSTR, DWORD) { return std::optional{open_service_handle()}; });
    answer<"OpenServiceW", decltype(OpenServiceW)>(
        module, [this](SC_HANDLE, LPCWSTR, DWORD) -> std::optional<SC_HANDLE> {
            if (!search_state_) {
                SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
                return nullptr;
            }
            return open_service_handle();
        });
    answer<"CloseServiceHandle", decltype(CloseServiceHandle)>(module, [this](SC_HANDLE handle) {
        EXPECT_EQ(service_handles_.erase(handle), 1U) << "closed, but not an open service handle";
        return std::optional{TRUE};
    });
    // What is pending is done when it has been seen once.
    answer<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)>(
        module, [this](SC_HANDLE, SC_STATUS_TYPE, LPBYTE status, DWORD, LPDWORD) {
            reinterpret_cast<SERVICE_STATUS_PROCESS*>(status)->dwCurrentState = *search_state_;
            if (search_state_ == SERVICE_STOP_PENDING) {
                search_state_ = SERVICE_STOPPED;
            } else if (search_state_ == SERVICE_START_PENDING) {
                search_state_ = SERVICE_RUNNING;
            }
            return std::optional{TRUE};
        });
    answer<"ControlService", decltype(ControlService)>(module, [this](SC_HANDLE, DWORD, LPSERVICE_STATUS) {
        search_state_ = SERVICE_STOP_PENDING;
        return std::optional{TRUE};
    });
    answer<"StartServiceW", decltype(StartServiceW)>(module, [this](SC_HANDLE, DWORD, LPCWSTR*) {
        if (search_start_type_ == SERVICE_DISABLED) {
            return std::optional{fail_with(ERROR_SERVICE_DISABLED)};
        }
        search_state_ = SERVICE_START_PENDING;
        return std::optional{TRUE};
    });
    answer<"QueryServiceConfigW", decltype(QueryServiceConfigW)>(
        module, [this](SC_HANDLE, LPQUERY_SERVICE_CONFIGW configuration, DWORD size, LPDWORD needed) {
            *needed = sizeof *configuration;
            if (size < sizeof *configuration) {
                return std::optional{fail_with(ERROR_INSUFFICIENT_BUFFER)};
            }
            configuration->dwStartType = search_start_type_;
            return std::optional{TRUE};
        });
    answer<"QueryServiceConfig2W", decltype(QueryServiceConfig2W)>(
        module, [](SC_HANDLE, DWORD, LPBYTE delayed, DWORD, LPDWORD) {
            reinterpret_cast<SERVICE_DELAYED_AUTO_START_INFO*>(delayed)->fDelayedAutostart = TRUE;
            return std::optional{TRUE};
        });
    answer<"ChangeServiceConfigW", decltype(ChangeServiceConfigW)>(
        module,
        [this](
            SC_HANDLE,
            DWORD,
            DWORD start_type,
            DWORD,
            LPCWSTR,
            LPCWSTR,
            LPDWORD,
            LPCWSTR,
            LPCWSTR,
            LPCWSTR,
            LPCWSTR) {
            search_start_type_ = start_type;
            return std::optional{TRUE};
        });
    answer<"ChangeServiceConfig2W", decltype(ChangeServiceConfig2W)>(
        module, [](SC_HANDLE, DWORD, LPVOID) { return std::optional{TRUE}; });
}

} // namespace test_support
