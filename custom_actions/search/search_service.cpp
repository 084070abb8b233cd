#include "custom_actions/search/search_service.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/search/transition.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

constexpr DWORD POLL_MS = 250;

// An empty handle if the service is not installed.
service_handle open_search_service(DWORD access)
{
    const service_handle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)};
    check_bool(manager, "Cannot open service manager");
    service_handle service{OpenServiceW(manager.get(), L"WSearch", access)};
    check_bool(service || GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST, "Cannot open Windows Search");
    return service;
}

// Throws windows_error `failure` if the service cannot be opened or is not installed.
service_handle require_search_service(DWORD access, const char* failure)
{
    try {
        if (service_handle service = open_search_service(access)) {
            return service;
        }
    } catch (const windows_error& error) {
        throw windows_error{failure, error.code()};
    }
    throw windows_error{failure, ERROR_SERVICE_DOES_NOT_EXIST};
}

SERVICE_STATUS_PROCESS query_status(SC_HANDLE service)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD size = 0;
    check_bool(
        QueryServiceStatusEx(
            service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &size),
        "Cannot query Windows Search");
    return status;
}

DWORD query_search_state(SC_HANDLE service)
{
    return query_status(service).dwCurrentState;
}

[[noreturn]] void throw_timed_out(DWORD expected, const SERVICE_STATUS_PROCESS& last, ULONGLONG elapsed)
{
    std::string message = "Windows Search transition timed out:";
    const auto add = [&message](const char* name, ULONGLONG value) {
        message.append(name).append(std::to_string(value));
    };
    add(" expected=", expected);
    add(" state=", last.dwCurrentState);
    add(" pid=", last.dwProcessId);
    add(" checkpoint=", last.dwCheckPoint);
    add(" hint=", last.dwWaitHint);
    add(" elapsed=", elapsed);
    throw std::runtime_error{message};
}

void wait_for_search_state(SC_HANDLE service, DWORD expected)
{
    using enum service_transition::verdict;
    const ULONGLONG start = GetTickCount64();
    service_transition transition{expected, query_status(service), start};
    for (;;) {
        const SERVICE_STATUS_PROCESS status = query_status(service);
        const ULONGLONG now = GetTickCount64();
        switch (transition.observe(status, now)) {
        case reached:
            return;
        case give_up:
            throw_timed_out(expected, status, transition.elapsed(now));
        case wait:
            Sleep(POLL_MS);
        }
    }
}

bool is_start_type(DWORD type) noexcept
{
    return type == SERVICE_AUTO_START || type == SERVICE_DEMAND_START || type == SERVICE_DISABLED;
}

// Returns the service, open for further changes of its configuration.
service_handle change_start_type(DWORD type)
{
    constexpr const char* failure = "Cannot change Windows Search startup type";
    if (!is_start_type(type)) {
        throw std::runtime_error{"Invalid Windows Search startup type"};
    }
    service_handle service = require_search_service(SERVICE_CHANGE_CONFIG, failure);
    constexpr DWORD same = SERVICE_NO_CHANGE;
    const wchar_t* const no = nullptr;
    check_bool(
        ChangeServiceConfigW(service.get(), same, type, same, no, no, nullptr, no, no, no, no), failure);
    return service;
}

} // namespace

bool search_is_running()
{
    const service_handle service = open_search_service(SERVICE_QUERY_STATUS);
    if (!service) {
        return false;
    }
    const DWORD state = query_search_state(service.get());
    if (state != SERVICE_RUNNING && state != SERVICE_STOPPED) {
        throw std::runtime_error{"Windows Search must be running or stopped before installation"};
    }
    return state == SERVICE_RUNNING;
}

std::optional<DWORD> read_search_start_type()
{
    const service_handle service = open_search_service(SERVICE_QUERY_CONFIG);
    if (!service) {
        return std::nullopt;
    }
    DWORD size = 0;
    check_bool(
        !QueryServiceConfigW(service.get(), nullptr, 0, &size) &&
            GetLastError() == ERROR_INSUFFICIENT_BUFFER && size != 0,
        "Cannot size Windows Search configuration");
    std::vector<std::byte> buffer(size);
    auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    check_bool(
        QueryServiceConfigW(service.get(), configuration, size, &size),
        "Cannot read Windows Search configuration");
    if (!is_start_type(configuration->dwStartType)) {
        throw std::runtime_error{"Unexpected Windows Search startup type"};
    }
    return configuration->dwStartType;
}

bool search_is_installed()
{
    return read_search_start_type().has_value();
}

bool search_starts_delayed()
{
    constexpr const char* failure = "Cannot read Windows Search delayed start";
    const service_handle service = require_search_service(SERVICE_QUERY_CONFIG, failure);
    constexpr DWORD what = SERVICE_CONFIG_DELAYED_AUTO_START_INFO;
    SERVICE_DELAYED_AUTO_START_INFO delayed{};
    DWORD size = 0;
    auto* const buffer = reinterpret_cast<BYTE*>(&delayed);
    check_bool(QueryServiceConfig2W(service.get(), what, buffer, sizeof delayed, &size), failure);
    return delayed.fDelayedAutostart != FALSE;
}

void set_search_start_type(DWORD type)
{
    change_start_type(type);
}

void restore_search_start_type(DWORD type, bool delayed)
{
    const service_handle service = change_start_type(type);
    if (type == SERVICE_AUTO_START) {
        SERVICE_DELAYED_AUTO_START_INFO info{.fDelayedAutostart = delayed};
        check_bool(
            ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &info),
            "Cannot restore Windows Search delayed start");
    }
}

void stop_search_service()
{
    const service_handle service = open_search_service(SERVICE_QUERY_STATUS | SERVICE_STOP);
    if (!service) {
        throw std::runtime_error{"Windows Search disappeared before stop"};
    }
    const DWORD state = query_search_state(service.get());
    if (state == SERVICE_STOPPED) {
        return;
    }
    SERVICE_STATUS status{};
    check_bool(
        state == SERVICE_STOP_PENDING || ControlService(service.get(), SERVICE_CONTROL_STOP, &status),
        "Cannot stop Windows Search");
    wait_for_search_state(service.get(), SERVICE_STOPPED);
}

void start_search_service()
{
    const service_handle service = open_search_service(SERVICE_QUERY_STATUS | SERVICE_START);
    if (!service) {
        throw std::runtime_error{"Windows Search disappeared before restore"};
    }
    DWORD state = query_search_state(service.get());
    if (state == SERVICE_STOP_PENDING) {
        wait_for_search_state(service.get(), SERVICE_STOPPED);
        state = query_search_state(service.get());
    }
    if (state == SERVICE_RUNNING) {
        return;
    }
    check_bool(
        StartServiceW(service.get(), 0, nullptr) || GetLastError() == ERROR_SERVICE_ALREADY_RUNNING,
        "Cannot restart Windows Search");
    wait_for_search_state(service.get(), SERVICE_RUNNING);
}

} // namespace custom_actions
