// The stand-in for the Task Scheduler, of which Wine lacks parts: an in-process COM server of the same class,
// registered for the machine by regsvr32 (regsvr32 /u restores the system's own). It implements the calls
// that the library makes, and no others. A task's program really runs, as the caller and without a time
// limit.
//
// HKCU\Software\QuorbelStandIn\TaskScheduler has its state:
//   Tasks\NAME   a registered task: its properties, as text ("Path", "Arguments", "UserId", "RunLevel", ...),
//                and the arguments of its registration ("RegisteredUser", "RegisteredLogonType")
//   Calls        every implemented call ("ITaskService::Connect"), a line each
//   Unexpected   every call that is not implemented ("IPrincipal, method 5", counted from 0) or that has
//                arguments which it rejects
//   Objects      the number of its live objects in the process that used it last
// and its settings:
//   Fail         the call that fails with E_ACCESSDENIED ("IRegisteredTask::Run")
//   State        the state of every run; no program is started
//   Result       the result of every run; no program is started

#include "package/toy_suite/toy_scheduler/com_object.h"

#include <windows.h>
#include <olectl.h>

#include <iterator>

namespace {

constexpr const wchar_t* SERVER =
    L"Software\\Classes\\CLSID\\{0F87369F-A4E5-4CFC-BD3E-73E6154572DD}\\InprocServer32";
constexpr const wchar_t* BEFORE = L"BeforeStandIn"; // the path of the system's own server

// Copies a REG_SZ value of the key to another name; false if there is none.
bool copy_text(const wchar_t* from, const wchar_t* to)
{
    wchar_t text[MAX_PATH]{};
    DWORD size = sizeof text;
    return RegGetValueW(HKEY_LOCAL_MACHINE, SERVER, from, RRF_RT_REG_SZ, nullptr, text, &size) ==
               ERROR_SUCCESS &&
           RegSetKeyValueW(HKEY_LOCAL_MACHINE, SERVER, to, REG_SZ, text, size) == ERROR_SUCCESS;
}

} // namespace

STDAPI DllGetClassObject(REFCLSID /*the one of SERVER*/, REFIID wanted, LPVOID* found)
{
    toy_scheduler::object& factory = toy_scheduler::object_of(toy_scheduler::make_factory());
    const HRESULT result = toy_scheduler::query(&factory, wanted, found);
    toy_scheduler::release(&factory);
    return result;
}

STDAPI DllRegisterServer()
{
    HMODULE self = nullptr;
    wchar_t path[MAX_PATH]{};
    const bool registered_before =
        RegGetValueW(HKEY_LOCAL_MACHINE, SERVER, BEFORE, RRF_RT_REG_SZ, nullptr, nullptr, nullptr) ==
        ERROR_SUCCESS;
    if (!registered_before && !copy_text(nullptr, BEFORE)) {
        return SELFREG_E_CLASS;
    }
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        SERVER, // any address in this library
        &self);
    const DWORD length = GetModuleFileNameW(self, path, static_cast<DWORD>(std::size(path)));
    const auto size = static_cast<DWORD>((length + 1) * sizeof(wchar_t));
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, SERVER, nullptr, REG_SZ, path, size) == ERROR_SUCCESS
               ? S_OK
               : SELFREG_E_CLASS;
}

STDAPI DllUnregisterServer()
{
    if (copy_text(BEFORE, nullptr)) {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, SERVER, BEFORE);
    }
    return S_OK;
}
