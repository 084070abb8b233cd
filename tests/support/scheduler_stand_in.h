#pragma once

#include "package/toy_suite/toy_scheduler/state.h"

#include <windows.h>

#include <string>

namespace test_support {

// Puts the stand-in of the Task Scheduler (package/toy_suite/toy_scheduler) in the system's place, with an
// empty state, for everything on the machine, until the scope ends; its own state.h has functions for its
// tasks. At the end, objects of it that live and calls that it did not expect fail the test. The machine must
// be disposable.
class scheduler_stand_in {
public:
    // Throws std::runtime_error where it cannot be registered.
    scheduler_stand_in();
    ~scheduler_stand_in();

    scheduler_stand_in(const scheduler_stand_in&) = delete;
    scheduler_stand_in& operator=(const scheduler_stand_in&) = delete;

    // From here on this call ("IRegisteredTask::Run", "IClassFactory::CreateInstance" for the service object)
    // fails.
    void fail(const std::wstring& call) { state().write(L"Fail", call); }

    // From here on a run starts nothing: it stays in this state, or it has ended with this result.
    void stay_in(DWORD task_state) { state().write(L"State", task_state); }

    void end_with(HRESULT result) { state().write(L"Result", static_cast<DWORD>(result)); }

    // Forgets the tasks and what it was told.
    void clear() { RegDeleteTreeW(HKEY_CURRENT_USER, toy_scheduler::STATE); }

    // Puts a task of no program there.
    void register_task(const std::wstring& name) { toy_scheduler::save_task(name, {{L"Path", L"none.exe"}}); }

    // The calls that it did not expect; empty where there were none.
    [[nodiscard]] std::wstring unexpected() const { return state().text(L"Unexpected").value_or(L""); }

    // How many of its objects live in the process that used it last.
    [[nodiscard]] DWORD objects() const { return state().number(L"Objects").value_or(0); }

private:
    static toy_suite::registry_state state() { return toy_suite::registry_state{toy_scheduler::STATE}; }

    HMODULE library_;
};

} // namespace test_support
