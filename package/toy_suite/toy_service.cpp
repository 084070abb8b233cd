// The stand-in for Windows Search: a service program that installs itself as "WSearch".
//   toy_service --install TIME [FILE]   installs it as a demand-start service, replacing an earlier stand-in.
//                                       Starting and stopping take TIME milliseconds each; it records the
//                                       first line of FILE when it starts and when it stops.
//   toy_service --start                 starts it and clears the record
//   toy_service --remove                ends it, whatever its state, and removes it; does nothing if absent
// Each exits with 0 when done, or reports the error and exits with 1. The machine's own Windows Search is
// never replaced or removed.
//
// The record is the key Asked below the service's key: the counts Starts and Stops, and the lines AtStart and
// AtStop. The event Global\toy-search-end ends the service.

#include "custom_actions/common/scoped_handle.h"
#include "package/toy_suite/process.h"
#include "package/toy_suite/registry_state.h"

#include <windows.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using custom_actions::kernel_handle;
using custom_actions::service_handle;

constexpr const wchar_t* SERVICE_NAME = L"WSearch";
constexpr const wchar_t* SERVICE_KEY = LR"(SYSTEM\CurrentControlSet\Services\WSearch)";
constexpr const wchar_t* RECORD_KEY = LR"(SYSTEM\CurrentControlSet\Services\WSearch\Asked)";
constexpr const wchar_t* END_EVENT = LR"(Global\toy-search-end)";

// Opened anew each time, since --start deletes the key.
toy_suite::registry_state record()
{
    return toy_suite::registry_state{RECORD_KEY, HKEY_LOCAL_MACHINE};
}

void count_one(const wchar_t* name)
{
    record().write(name, record().number(name).value_or(0) + 1);
}

void record_first_line(const std::filesystem::path& of, const wchar_t* name)
{
    std::ifstream file{of};
    std::string line;
    std::getline(file, line);
    std::erase(line, '\r');
    record().write(name, std::wstring{line.begin(), line.end()});
}

class toy_service {
public:
    // With TIME and FILE from the service's command line.
    explicit toy_service(const std::vector<std::wstring>& arguments)
        : transition_ms_{std::stoul(arguments.at(0))},
          recorded_file_{arguments.size() > 1 ? arguments[1] : L""}
    {
        ResetEvent(end_asked_); // an earlier stand-in may still hold it open
    }

    void run()
    {
        report(SERVICE_START_PENDING);
        count_one(L"Starts");
        record_first_line(recorded_file_, L"AtStart");
        if (pass_time()) {
            report(SERVICE_RUNNING);
            const HANDLE requests[]{stop_asked_, end_asked_};
            const DWORD asked = WaitForMultipleObjects(2, requests, FALSE, INFINITE);
            if (asked == WAIT_OBJECT_0 && pass_time()) {
                record_first_line(recorded_file_, L"AtStop");
            }
        }
        report(SERVICE_STOPPED);
    }

private:
    static DWORD WINAPI on_control(DWORD control, DWORD /*event*/, LPVOID /*data*/, LPVOID context)
    {
        auto& service = *static_cast<toy_service*>(context);
        switch (control) {
        case SERVICE_CONTROL_STOP:
            count_one(L"Stops");
            service.report(SERVICE_STOP_PENDING);
            SetEvent(service.stop_asked_);
            return NO_ERROR;
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
        }
    }

    void report(DWORD state)
    {
        SERVICE_STATUS status{};
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status.dwCurrentState = state;
        status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
        SetServiceStatus(reporting_, &status);
    }

    // Waits for the time of a transition; false if the end was requested meanwhile.
    bool pass_time() { return WaitForSingleObject(end_asked_, transition_ms_) == WAIT_TIMEOUT; }

    DWORD transition_ms_;
    std::filesystem::path recorded_file_;
    // Held until the process ends.
    HANDLE stop_asked_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE end_asked_ = CreateEventW(nullptr, TRUE, FALSE, END_EVENT);
    SERVICE_STATUS_HANDLE reporting_ = RegisterServiceCtrlHandlerExW(SERVICE_NAME, on_control, this);
};

void WINAPI run_service(DWORD /*count*/, LPWSTR* /*arguments*/)
{
    toy_service{toy_suite::read_arguments()}.run();
}

void require(bool done, const std::string& what)
{
    if (!done) {
        throw std::runtime_error{what + ", error " + std::to_string(GetLastError())};
    }
}

// Throws if `reached` does not come true within 10 seconds.
void wait_until(const std::function<bool()>& reached, const char* complaint)
{
    for (int tries = 0; !reached(); ++tries) {
        if (tries == 1000) {
            throw std::runtime_error{complaint};
        }
        Sleep(10);
    }
}

service_handle open_service(SC_HANDLE manager)
{
    return service_handle{OpenServiceW(manager, SERVICE_NAME, SERVICE_ALL_ACCESS)};
}

DWORD state_of(const service_handle& service)
{
    SERVICE_STATUS status{};
    require(QueryServiceStatus(service.get(), &status) != FALSE, "the service cannot be queried");
    return status.dwCurrentState;
}

bool is_ours()
{
    wchar_t program[1024]{};
    DWORD size = sizeof program;
    RegGetValueW(HKEY_LOCAL_MACHINE, SERVICE_KEY, L"ImagePath", RRF_RT_REG_SZ, nullptr, program, &size);
    return std::wstring_view{program}.find(L"toy_service.exe") != std::wstring_view::npos;
}

// Returns when the service is gone: its program has ended and every handle to it is closed.
void remove_service(SC_HANDLE manager)
{
    if (const service_handle service = open_service(manager)) {
        if (!is_ours()) {
            throw std::runtime_error{"this machine has a Windows Search of its own"};
        }
        const auto has_ended = [&] {
            const kernel_handle end{OpenEventW(EVENT_MODIFY_STATE, FALSE, END_EVENT)};
            SetEvent(end.get()); // fails if the program does not run (yet)
            return state_of(service) == SERVICE_STOPPED;
        };
        wait_until(has_ended, "the service does not end");
        DeleteService(service.get());
    }
    const auto is_gone = [&] {
        return !open_service(manager) && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
    };
    wait_until(is_gone, "the service cannot be removed");
}

void install_service(SC_HANDLE manager, const std::vector<std::wstring>& arguments)
{
    remove_service(manager);
    wchar_t program[MAX_PATH]{};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring command_line = L'"' + std::wstring{program} + L'"';
    for (const std::wstring& argument : arguments) {
        command_line.append(L" \"").append(argument).push_back(L'"');
    }
    const service_handle service{CreateServiceW(
        manager,
        SERVICE_NAME,
        nullptr,
        SERVICE_ALL_ACCESS,
        SERVICE_WIN32_OWN_PROCESS,
        SERVICE_DEMAND_START,
        SERVICE_ERROR_NORMAL,
        command_line.c_str(),
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr)};
    require(bool{service}, "the service cannot be installed");
}

void start_service(SC_HANDLE manager)
{
    const service_handle service = open_service(manager);
    require(bool{service}, "the service cannot be opened");
    const bool started = StartServiceW(service.get(), 0, nullptr) ||
                         (GetLastError() == ERROR_SERVICE_REQUEST_TIMEOUT && // on a busy machine
                          StartServiceW(service.get(), 0, nullptr));
    require(started, "the service cannot be started");
    wait_until([&] { return state_of(service) == SERVICE_RUNNING; }, "the service does not start");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, RECORD_KEY);
}

void run_command(const std::vector<std::wstring>& arguments)
{
    const service_handle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    require(bool{manager}, "the service manager cannot be opened");
    const std::wstring& command = arguments[0];
    if (command == L"--install" && arguments.size() > 1) {
        install_service(manager.get(), {arguments.begin() + 1, arguments.end()});
    } else if (command == L"--start") {
        start_service(manager.get());
    } else if (command == L"--remove") {
        remove_service(manager.get());
    } else {
        throw std::runtime_error{"use --install TIME [FILE], --start or --remove"};
    }
}

} // namespace

int main()
{
    try {
        const std::vector<std::wstring> arguments = toy_suite::read_arguments();
        if (!arguments.empty() && arguments[0].starts_with(L"--")) {
            run_command(arguments);
        } else {
            std::wstring name = SERVICE_NAME;
            const SERVICE_TABLE_ENTRYW services[]{{name.data(), run_service}, {nullptr, nullptr}};
            require(
                StartServiceCtrlDispatcherW(services) != FALSE,
                "without a command, only the service manager can start it");
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "The stand-in for Windows Search: " << error.what() << '\n';
        return 1;
    }
}
