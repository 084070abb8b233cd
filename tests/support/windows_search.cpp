#include "tests/support/windows_search.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/search/search_service.h"
#include "tests/support/child_process.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace test_support {
namespace {

using custom_actions::kernel_handle;
using custom_actions::service_handle;

constexpr const wchar_t* NAME = L"WSearch";
constexpr const wchar_t* PROGRAM = L"toy_service.exe";
const std::wstring KEY = LR"(SYSTEM\CurrentControlSet\Services\WSearch)";

template <class Result>
Result checked(Result result, const char* what)
{
    if (!result) {
        throw std::system_error{static_cast<int>(GetLastError()), std::system_category(), what};
    }
    return result;
}

service_handle open_manager(DWORD access = SC_MANAGER_CONNECT)
{
    return service_handle{checked(OpenSCManagerW(nullptr, nullptr, access), "OpenSCManagerW")};
}

// Empty where there is none.
service_handle find_service()
{
    const service_handle manager = open_manager();
    return service_handle{OpenServiceW(manager.get(), NAME, SERVICE_ALL_ACCESS)};
}

SERVICE_STATUS_PROCESS status_of(const service_handle& service)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD size = 0;
    checked(
        QueryServiceStatusEx(
            service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &size),
        "QueryServiceStatusEx");
    return status;
}

bool is_toy(const service_handle& service)
{
    std::vector<std::byte> buffer(8192); // the most that a configuration takes
    auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    DWORD size = 0;
    checked(
        QueryServiceConfigW(service.get(), configuration, static_cast<DWORD>(buffer.size()), &size),
        "QueryServiceConfigW");
    return std::wstring{configuration->lpBinaryPathName}.find(PROGRAM) != std::wstring::npos;
}

// Not with Sleep, on which a test may play.
void wait_until(const std::function<bool()>& reached)
{
    for (int tries = 0; !reached(); ++tries) {
        if (tries == 1000) {
            throw std::runtime_error{"the toy service does not get there"};
        }
        SleepEx(10, FALSE);
    }
}

void end_and_mark_for_deletion(const service_handle& service)
{
    if (!is_toy(service)) {
        throw std::runtime_error{"this machine has a Windows Search of its own"};
    }
    const kernel_handle end{OpenEventW(EVENT_MODIFY_STATE, FALSE, LR"(Global\toy-search-end)")};
    SetEvent(end.get()); // where there is none, it does not run
    wait_until([&] { return status_of(service).dwCurrentState == SERVICE_STOPPED; });
    if (!DeleteService(service.get()) && GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE) {
        checked(FALSE, "DeleteService");
    }
}

// It is gone once its program has ended and nobody has it open.
void remove_service()
{
    if (const service_handle service = find_service()) {
        end_and_mark_for_deletion(service);
    }
    wait_until([] { return !find_service(); });
}

void tell(const wchar_t* name, DWORD value)
{
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, (KEY + L"\\Toy").c_str(), name, REG_DWORD, &value, sizeof value);
}

DWORD asked(const wchar_t* name)
{
    DWORD count = 0;
    DWORD size = sizeof count;
    RegGetValueW(
        HKEY_LOCAL_MACHINE, (KEY + L"\\Asked").c_str(), name, RRF_RT_REG_DWORD, nullptr, &count, &size);
    return count;
}

std::wstring kept_line(const wchar_t* name)
{
    wchar_t line[256]{};
    DWORD size = sizeof line;
    RegGetValueW(HKEY_LOCAL_MACHINE, (KEY + L"\\Asked").c_str(), name, RRF_RT_REG_SZ, nullptr, line, &size);
    return line;
}

} // namespace

windows_search::windows_search(const search_behaviour& behaviour) : started_state_{behaviour.started_state}
{
    remove_service();
    const std::wstring program =
        L'"' + (std::filesystem::path{this_program()}.parent_path() / PROGRAM).wstring() + L'"';
    const service_handle manager = open_manager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
    const service_handle service{checked(
        CreateServiceW(
            manager.get(),
            NAME,
            NAME,
            SERVICE_ALL_ACCESS,
            SERVICE_WIN32_OWN_PROCESS,
            SERVICE_DEMAND_START,
            SERVICE_ERROR_NORMAL,
            program.c_str(),
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr),
        "CreateServiceW")};
    tell(L"StartTime", behaviour.start_time);
    tell(L"StopTime", behaviour.stop_time);
    tell(L"StartedState", behaviour.started_state);
    tell(L"NeverStops", behaviour.never_stops ? 1 : 0);
    tell(L"WaitHint", behaviour.wait_hint);
    tell(L"CheckPointStep", behaviour.check_point_step);
    RegSetKeyValueW(
        HKEY_LOCAL_MACHINE,
        (KEY + L"\\Toy").c_str(),
        L"Watch",
        REG_SZ,
        behaviour.watch,
        static_cast<DWORD>((std::wcslen(behaviour.watch) + 1) * sizeof(wchar_t)));
}

windows_search::~windows_search()
{
    try {
        remove_service();
    } catch (const std::exception& error) {
        ADD_FAILURE() << "the toy service stays: " << error.what();
    }
}

void windows_search::start()
{
    const service_handle service = find_service();
    bool started = StartServiceW(service.get(), 0, nullptr) != FALSE;
    if (!started && GetLastError() == ERROR_SERVICE_REQUEST_TIMEOUT) { // on a busy machine
        started = StartServiceW(service.get(), 0, nullptr) != FALSE;
    }
    checked(started, "StartServiceW");
    wait_until([&] { return starts() != 0 && state() == started_state_; });
    forget();
}

void windows_search::forget()
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, (KEY + L"\\Asked").c_str());
}

void windows_search::ask_to_stop()
{
    SERVICE_STATUS status{};
    checked(ControlService(find_service().get(), SERVICE_CONTROL_STOP, &status), "ControlService");
}

DWORD windows_search::state() const
{
    return status_of(find_service()).dwCurrentState;
}

DWORD windows_search::process_id() const
{
    return status_of(find_service()).dwProcessId;
}

DWORD windows_search::stops() const
{
    return asked(L"Stops");
}

DWORD windows_search::starts() const
{
    return asked(L"Starts");
}

std::wstring windows_search::line_at_stop() const
{
    return kept_line(L"AtStop");
}

std::wstring windows_search::line_at_start() const
{
    return kept_line(L"AtStart");
}

} // namespace test_support
