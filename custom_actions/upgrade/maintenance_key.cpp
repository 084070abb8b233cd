#include "custom_actions/upgrade/maintenance_key.h"

#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <windows.h>

#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr const wchar_t* MAINTENANCE_KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";

// Reads when the process was created, in 100 ns since 1601. False, with the last error set, if that fails.
bool read_creation_time(HANDLE process, ULONGLONG& created) noexcept
{
    FILETIME creation{};
    FILETIME exit{};
    FILETIME kernel{};
    FILETIME user{};
    const BOOL read = GetProcessTimes(process, &creation, &exit, &kernel, &user);
    created = ULONGLONG{creation.dwHighDateTime} << 32U | creation.dwLowDateTime;
    return read != FALSE;
}

void take_key()
{
    constexpr const char* failure = "Cannot persist upgrade guard";
    wide_registry_key key;
    check_win32(
        key.create(HKEY_LOCAL_MACHINE, std::wstring{MAINTENANCE_KEY}, KEY_SET_VALUE | KEY_WOW64_64KEY),
        "Cannot establish upgrade guard");
    ULONGLONG created = 0;
    check_bool(read_creation_time(GetCurrentProcess(), created), failure);
    check_win32(key.write_number(L"Created", REG_QWORD, created), failure);
    check_win32(key.write_number(L"Process", REG_DWORD, GetCurrentProcessId()), failure);
}

void release_key()
{
    const LSTATUS status = RegDeleteKeyExW(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, KEY_WOW64_64KEY, 0);
    if (status != ERROR_FILE_NOT_FOUND) {
        check_win32(status, "Cannot release upgrade guard");
    }
}

// `type` is RRF_RT_REG_DWORD or RRF_RT_REG_QWORD.
template <class Number>
bool read_value(const wchar_t* name, DWORD type, Number& number) noexcept
{
    return read_number(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, name, type | RRF_SUBKEY_WOW6464KEY, number) ==
           ERROR_SUCCESS;
}

} // namespace

void upgrade_guard(bool acquire)
{
    acquire ? take_key() : release_key();
}

bool guard_is_live()
{
    DWORD owner = 0;
    ULONGLONG created = 0;
    if (!read_value(L"Process", RRF_RT_REG_DWORD, owner) || owner == 0 ||
        !read_value(L"Created", RRF_RT_REG_QWORD, created)) {
        return false;
    }
    const kernel_handle process{OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, owner)};
    if (!process) {
        return GetLastError() == ERROR_ACCESS_DENIED;
    }
    ULONGLONG found = 0;
    if (!read_creation_time(process.get(), found)) {
        return true; // better one refusal too many
    }
    return found == created && WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

} // namespace custom_actions::controlled_upgrade
