// Windows Search of the toy suite: a service program that puts itself under that service's name, "WSearch".
//   toy_service --install TIME [FILE]   installs it, to be started on demand, in the place of one that was
//                                       left: starting takes it TIME milliseconds, and so does stopping, and
//                                       it keeps the first line of FILE when it starts and when it stops
//   toy_service --start                 starts it, and forgets what was asked of it before
//   toy_service --remove                ends it, in whatever state it is, and removes it, if it is there
// Each ends when that is done, with 0, or says what went wrong and ends with 1. A Windows Search of the
// machine's own is neither replaced nor removed.
//
// The values of the key Asked below the service's own key tell what was asked of it: the numbers Starts and
// Stops, and the lines AtStart and AtStop of the file. The event Global\toy-search-end ends it.

#include "custom_actions/common/scoped_handle.h"
#include "package/toy_suite/arguments.h"
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
constexpr const wchar_t* ASKED = LR"(SYSTEM\CurrentControlSet\Services\WSearch\Asked)";
constexpr const wchar_t* END_EVENT = LR"(Global\toy-search-end)";

// Opened anew each time, since it may have been forgotten.
toy_suite::registry_state asked()
{
    return toy_suite::registry_state{ASKED, HKEY_LOCAL_MACHINE};
}

void count_one(const wchar_t* name)
{
    asked().write(name, asked().number(name).value_or(0) + 1);
}

void keep_first_line(const std::filesystem::path& of, const wchar_t* name)
{
    std::ifstream file{of};
    std::string line;
    std::getline(file, line);
    std::erase(line, '\r');
    asked().write(name, std::wstring{line.begin(), line.end()});
}

class toy_service {
public:
    // As the service manager starts it: with TIME and FILE.
    explicit toy_service(const std::vector<std::wstring>& arguments)
        : transition_ms_{std::stoul(arguments.at(0))}, watched_{arguments.size() > 1 ? arguments[1] : L""}
    {
        ResetEvent(end_asked_); // the program before may still hold it
    }

    void run()
    {
        if (start()) {
            const HANDLE orders[]{stop_asked_, end_asked_};
            if (WaitForMultipleObjects(2, orders, FALSE, INFINITE) == WAIT_OBJECT_0) {
                stop();
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

    // Waits for as long as a transition takes; false where the end was asked for.
    bool pass_time() { return WaitForSingleObject(end_asked_, transition_ms_) == WAIT_TIMEOUT; }

    bool start()
    {
        report(SERVICE_START_PENDING);
        count_one(L"Starts");
        keep_first_line(watched_, L"AtStart");
        if (!pass_time()) {
            return false;
        }
        report(SERVICE_RUNNING);
        return true;
    }

    void stop()
    {
        if (pass_time()) {
            keep_first_line(watched_, L"AtStop");
        }
    }

    DWORD transition_ms_;
    std::filesystem::path watched_;
    // All of these are the process's own until it ends.
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

// For ten seconds at most.
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

// It is gone once its program has ended and nobody has it open.
void remove_service(SC_HANDLE manager)
{
    if (const service_handle service = open_service(manager)) {
        if (!is_ours()) {
            throw std::runtime_error{"this machine has a Windows Search of its own"};
        }
        const auto has_ended = [&] {
            const kernel_handle end{OpenEventW(EVENT_MODIFY_STATE, FALSE, END_EVENT)};
            SetEvent(end.get()); // where there is none, it does not run, or not yet
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
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, ASKED);
}

void follow(const std::vector<std::wstring>& arguments)
{
    const service_handle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    require(bool{manager}, "the service manager cannot be opened");
    const std::wstring& order = arguments[0];
    if (order == L"--install" && arguments.size() > 1) {
        install_service(manager.get(), {arguments.begin() + 1, arguments.end()});
    } else if (order == L"--start") {
        start_service(manager.get());
    } else if (order == L"--remove") {
        remove_service(manager.get());
    } else {
        throw std::runtime_error{"--install TIME [FILE], --start or --remove is what it can do"};
    }
}

} // namespace

int main()
{
    try {
        const std::vector<std::wstring> arguments = toy_suite::read_arguments();
        if (!arguments.empty() && arguments[0].starts_with(L"--")) {
            follow(arguments);
        } else {
            std::wstring name = SERVICE_NAME;
            const SERVICE_TABLE_ENTRYW services[]{{name.data(), run_service}, {nullptr, nullptr}};
            require(
                StartServiceCtrlDispatcherW(services) != FALSE, "it is started by the service manager alone");
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "The stand-in for Windows Search: " << error.what() << '\n';
        return 1;
    }
}
