#include "custom_actions/upgrade/maintenance_key.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <windows.h>

#include <optional>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr const wchar_t* MAINTENANCE_KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";

// When the process was created, in 100 ns since 1601.
std::optional<ULONGLONG> creation_time(HANDLE process) noexcept
{
    FILETIME created{};
    FILETIME exited{};
    FILETIME kernel{};
    FILETIME user{};
    if (!GetProcessTimes(process, &created, &exited, &kernel, &user)) {
        return std::nullopt;
    }
    return ULONGLONG{created.dwHighDateTime} << 32U | created.dwLowDateTime;
}

template <class Number>
std::optional<Number> read_number(const wchar_t* name, DWORD type) noexcept
{
    Number value{};
    DWORD size = sizeof value;
    const LSTATUS status = RegGetValueW(
        HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, name, type | RRF_SUBKEY_WOW6464KEY, nullptr, &value, &size);
    return status == ERROR_SUCCESS ? std::optional{value} : std::nullopt;
}

template <class Number>
LSTATUS write_number(HKEY key, const wchar_t* name, DWORD type, Number value) noexcept
{
    return RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

void take_key()
{
    registry_key_handle key;
    LSTATUS status = RegCreateKeyExW(
        HKEY_LOCAL_MACHINE,
        MAINTENANCE_KEY,
        0,
        nullptr,
        REG_OPTION_NON_VOLATILE,
        KEY_SET_VALUE | KEY_WOW64_64KEY,
        nullptr,
        key.put(),
        nullptr);
    if (status != ERROR_SUCCESS) {
        throw windows_error{"Cannot establish upgrade guard", static_cast<DWORD>(status)};
    }
    const std::optional<ULONGLONG> created = creation_time(GetCurrentProcess());
    if (!created) {
        throw_last_error("Cannot persist upgrade guard");
    }
    status = write_number(key.get(), L"Created", REG_QWORD, *created);
    if (status == ERROR_SUCCESS) {
        status = write_number(key.get(), L"Process", REG_DWORD, GetCurrentProcessId());
    }
    if (status != ERROR_SUCCESS) {
        throw windows_error{"Cannot persist upgrade guard", static_cast<DWORD>(status)};
    }
}

void release_key()
{
    const LSTATUS status = RegDeleteKeyExW(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, KEY_WOW64_64KEY, 0);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        throw windows_error{"Cannot release upgrade guard", static_cast<DWORD>(status)};
    }
}

} // namespace

void upgrade_guard(bool acquire)
{
    acquire ? take_key() : release_key();
}

bool guard_is_live()
{
    const auto owner = read_number<DWORD>(L"Process", RRF_RT_REG_DWORD);
    if (!owner || *owner == 0) {
        return false;
    }
    const auto created = read_number<ULONGLONG>(L"Created", RRF_RT_REG_QWORD);
    if (!created) {
        return false;
    }
    const kernel_handle process{OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, *owner)};
    if (!process) {
        return GetLastError() == ERROR_ACCESS_DENIED;
    }
    const std::optional<ULONGLONG> found = creation_time(process.get());
    if (!found) {
        return true; // better one refusal too many
    }
    return *found == *created && WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

} // namespace custom_actions::controlled_upgrade
