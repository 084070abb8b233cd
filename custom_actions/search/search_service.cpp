#include "custom_actions/search/search_service.h"

#include "custom_actions/common/windows_error.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

constexpr ULONGLONG TRANSITION_LIMIT_MS = 60'000;
constexpr DWORD POLL_MS = 250;
constexpr const char* START_TYPE_FAILURE = "Cannot change Windows Search startup type";

SERVICE_STATUS_PROCESS query_status(SC_HANDLE service)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD size = 0;
    if (!QueryServiceStatusEx(
            service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &size)) {
        throw_last_error("Cannot query Windows Search");
    }
    return status;
}

[[noreturn]] void throw_timed_out(DWORD expected, const SERVICE_STATUS_PROCESS& last, ULONGLONG elapsed)
{
    std::string message = "Windows Search transition timed out: expected=";
    message.append(std::to_string(expected))
        .append(" state=")
        .append(std::to_string(last.dwCurrentState))
        .append(" pid=")
        .append(std::to_string(last.dwProcessId))
        .append(" checkpoint=")
        .append(std::to_string(last.dwCheckPoint))
        .append(" hint=")
        .append(std::to_string(last.dwWaitHint))
        .append(" elapsed=")
        .append(std::to_string(elapsed));
    throw std::runtime_error{message};
}

bool is_start_type(DWORD type) noexcept
{
    return type == SERVICE_AUTO_START || type == SERVICE_DEMAND_START || type == SERVICE_DISABLED;
}

void require_start_type(DWORD type)
{
    if (!is_start_type(type)) {
        throw std::runtime_error{"Invalid Windows Search startup type"};
    }
}

} // namespace

service_handle open_search_service(DWORD access)
{
    const service_handle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)};
    if (!manager) {
        throw_last_error("Cannot open service manager");
    }
    service_handle service{OpenServiceW(manager.get(), L"WSearch", access)};
    if (!service && GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST) {
        throw_last_error("Cannot open Windows Search");
    }
    return service;
}

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

DWORD query_search_state(SC_HANDLE service)
{
    return query_status(service).dwCurrentState;
}

DWORD search_stall_limit(DWORD wait_hint_ms) noexcept
{
    return wait_hint_ms >= 1000 && wait_hint_ms <= 30'000 ? wait_hint_ms : 30'000;
}

void wait_for_search_state(SC_HANDLE service, DWORD expected)
{
    const ULONGLONG start = GetTickCount64();
    ULONGLONG last_progress = start;
    SERVICE_STATUS_PROCESS last_seen = query_status(service);
    for (;;) {
        const SERVICE_STATUS_PROCESS status = query_status(service);
        if (status.dwCurrentState == expected) {
            return;
        }
        const ULONGLONG now = GetTickCount64();
        if (status.dwCurrentState != last_seen.dwCurrentState ||
            status.dwCheckPoint > last_seen.dwCheckPoint) {
            last_progress = now;
        }
        if (now - start >= TRANSITION_LIMIT_MS ||
            now - last_progress >= search_stall_limit(status.dwWaitHint)) {
            throw_timed_out(expected, status, now - start);
        }
        last_seen = status;
        Sleep(POLL_MS);
    }
}

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
    if (QueryServiceConfigW(service.get(), nullptr, 0, &size) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0) {
        throw_last_error("Cannot size Windows Search configuration");
    }
    std::vector<std::byte> buffer(size);
    auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    if (!QueryServiceConfigW(service.get(), configuration, size, &size)) {
        throw_last_error("Cannot read Windows Search configuration");
    }
    if (!is_start_type(configuration->dwStartType)) {
        throw std::runtime_error{"Unexpected Windows Search startup type"};
    }
    return configuration->dwStartType;
}

service_handle set_search_start_type(DWORD type)
{
    require_start_type(type);
    service_handle service = require_search_service(SERVICE_CHANGE_CONFIG, START_TYPE_FAILURE);
    if (!ChangeServiceConfigW(
            service.get(),
            SERVICE_NO_CHANGE,
            type,
            SERVICE_NO_CHANGE,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr)) {
        throw_last_error(START_TYPE_FAILURE);
    }
    return service;
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
    if (state != SERVICE_STOP_PENDING && !ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
        throw_last_error("Cannot stop Windows Search");
    }
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
    if (!StartServiceW(service.get(), 0, nullptr) && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
        throw_last_error("Cannot restart Windows Search");
    }
    wait_for_search_state(service.get(), SERVICE_RUNNING);
}

} // namespace custom_actions
