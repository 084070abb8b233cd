#pragma once

#include "support/registry_sandbox.h"

#include <windows.h>

#include <map>
#include <string>

namespace test_support {

// Puts the stand-in of the Task Scheduler (package/toy_suite/toy_scheduler) in the system's place, with an
// empty state, for everything on the machine, until the scope ends. At the end, objects of it that live and
// calls that it did not expect fail the test. The machine must be disposable.
class scheduler_stand_in {
public:
    // Throws std::runtime_error where it cannot be registered.
    scheduler_stand_in();
    ~scheduler_stand_in();

    scheduler_stand_in(const scheduler_stand_in&) = delete;
    scheduler_stand_in& operator=(const scheduler_stand_in&) = delete;

    // From here on this call ("IRegisteredTask::Run", "IClassFactory::CreateInstance" for the service object)
    // fails.
    void fail(const std::wstring& call);

    // From here on a run starts nothing: it stays in this state, or it has ended with this result.
    void stay_in(DWORD state) { plant_number(HKEY_CURRENT_USER, STATE, L"State", state); }

    void end_with(HRESULT result)
    {
        plant_number(HKEY_CURRENT_USER, STATE, L"Result", static_cast<DWORD>(result));
    }

    // Forgets the tasks and what it was told.
    void clear() { RegDeleteTreeW(HKEY_CURRENT_USER, STATE.c_str()); }

    // Puts a task of no program there.
    void register_task(const std::wstring& name);

    using properties = std::map<std::wstring, std::wstring>;

    // The registered tasks by name, with their properties as text: "Path", "Arguments", "UserId", ...
    [[nodiscard]] std::map<std::wstring, properties> tasks() const;

    // How many of its objects live in the process that used it last.
    [[nodiscard]] DWORD objects() const { return planted_number(HKEY_CURRENT_USER, STATE, L"Objects"); }

private:
    inline static const std::wstring STATE = L"Software\\QuorbelStandIn\\TaskScheduler";

    HMODULE library_;
};

} // namespace test_support
