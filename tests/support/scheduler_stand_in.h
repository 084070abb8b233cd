#pragma once

#include "package/toy_suite/toy_scheduler/state.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <bit>
#include <stdexcept>
#include <string>

namespace test_support {

// Replaces the Task Scheduler of the whole machine with a stand-in (package/toy_suite/toy_scheduler; its
// state.h reads the tasks) until the scope ends. Starts without tasks. Objects left alive and unexpected
// calls fail the test at the end.
class scheduler_stand_in {
public:
    // Throws std::runtime_error if the machine is not disposable or the stand-in cannot be registered.
    scheduler_stand_in()
    {
        if (!machine_is_disposable() || FAILED(call_export("DllRegisterServer"))) {
            throw std::runtime_error{"cannot register the Task Scheduler's stand-in"};
        }
        clear();
    }

    ~scheduler_stand_in()
    {
        EXPECT_EQ(unexpected(), L"");
        EXPECT_EQ(objects(), 0U);
        clear();
        call_export("DllUnregisterServer");
        FreeLibrary(library_);
    }

    scheduler_stand_in(const scheduler_stand_in&) = delete;
    scheduler_stand_in& operator=(const scheduler_stand_in&) = delete;

    // Makes this call fail from now on: "IRegisteredTask::Run", say, or "IClassFactory::CreateInstance" for
    // the service object.
    void fail(const std::wstring& call) { state().write(L"Fail", call); }

    // From now on a task that is run starts nothing: it stays in this state, or has ended with this result.
    void stay_in(DWORD task_state) { state().write(L"State", task_state); }

    void end_with(HRESULT result) { state().write(L"Result", static_cast<DWORD>(result)); }

    // Removes the tasks and every setting above.
    void clear() { RegDeleteTreeW(HKEY_CURRENT_USER, toy_scheduler::STATE); }

    // Adds a task whose program does not exist.
    void register_task(const std::wstring& name) { toy_scheduler::save_task(name, {{L"Path", L"none.exe"}}); }

    // The unexpected calls; empty if there were none.
    [[nodiscard]] std::wstring unexpected() const { return state().text(L"Unexpected").value_or(L""); }

    // The calls since clear(), a line each: "ITaskService::Connect".
    [[nodiscard]] std::wstring calls() const { return state().text(L"Calls").value_or(L""); }

    // The number of objects alive in the process that used it last.
    [[nodiscard]] DWORD objects() const { return state().number(L"Objects").value_or(0); }

private:
    static toy_suite::registry_state state() { return toy_suite::registry_state{toy_scheduler::STATE}; }

    HRESULT call_export(const char* name)
    {
        return std::bit_cast<HRESULT(STDAPICALLTYPE*)()>(GetProcAddress(library_, name))();
    }

    HMODULE library_ = LoadLibraryW(beside_this_program(L"toy_scheduler.dll").c_str());
};

} // namespace test_support
