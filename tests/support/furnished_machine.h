#pragma once

#include "custom_actions/upgrade/context.h"
#include "package/toy_suite/toy_scheduler/state.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/real_session.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/call_sweep.h"
#include "tests/support/fake_machine.h"
#include "tests/support/furnished_registry.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace test_support {

// Replaces the Task Scheduler of the whole machine with package/toy_suite/toy_scheduler until the scope ends.
// What this reads and sets is in the registry that the tested library sees, too.
class scheduler_stand_in {
public:
    scheduler_stand_in() { call_export("DllRegisterServer"); }

    ~scheduler_stand_in() { call_export("DllUnregisterServer"); }

    scheduler_stand_in(const scheduler_stand_in&) = delete;
    scheduler_stand_in& operator=(const scheduler_stand_in&) = delete;

    // Makes this call fail from now on: "IRegisteredTask::Run", say, or "IClassFactory::CreateInstance" for
    // the service object.
    void fail(const std::wstring& call) { state().write(L"Fail", call); }

    // From now on a task that is run starts nothing: it stays in this state, or has ended with this result.
    void stay_in(DWORD task_state) { state().write(L"State", task_state); }

    void end_with(HRESULT result) { state().write(L"Result", static_cast<DWORD>(result)); }

    // The calls since the state was last deleted, a line each: "ITaskService::Connect".
    [[nodiscard]] std::wstring calls() const { return state().text(L"Calls").value_or(L""); }

    // The unexpected ones; empty if there were none.
    [[nodiscard]] std::wstring unexpected() const { return state().text(L"Unexpected").value_or(L""); }

    // The number of objects alive in the process that used it last.
    [[nodiscard]] DWORD objects() const { return state().number(L"Objects").value_or(0); }

private:
    static toy_suite::registry_state state() { return toy_suite::registry_state{toy_scheduler::STATE}; }

    // Fails the test if the call fails.
    void call_export(const char* name) const;

    HMODULE library_ = LoadLibraryW(beside_this_program(L"toy_scheduler.dll").c_str());
};

// The built library on a fake machine with something to do for every action: two programs of the suite, of
// which one has no window and must be killed, a host of one of its libraries, scratch hives, and the Task
// Scheduler's stand-in. The machine must be disposable. Only one may exist at a time.
class furnished_machine {
public:
    furnished_machine();

    // Sets everything up for a run of this action: its properties, its part of the registry, an upgrade that
    // its phase continues. Every program and Search run.
    void furnish(const std::string& action);

    // Sets a property of the installer.
    void set_property(const std::wstring& name, const std::wstring& value) const;

    // The workspace's markers.
    [[nodiscard]] std::set<std::wstring> markers() const;

    // Makes the workspace if it is missing, and leaves it with the markers of these names alone.
    void leave_markers(const std::wstring& names) const;

    toy_process main{L"Quorbel.exe"};
    toy_process helper{L"Quorbel.Kindra.HelperService.exe", L"--window=none"};
    toy_process explorer{L"explorer.exe"};
    const std::map<std::wstring, DWORD> ids{
        {L"main", main.id()},
        {L"helper", helper.id()},
        {L"explorer", explorer.id()},
        {L"gone", 0x7FFFFFF0}, // listed, but it has ended since
        {L"0", 0},
        {L"this", GetCurrentProcessId()},
        {L"other", 4}};
    scheduler_stand_in scheduler; // before the sandboxes: it is registered in the real registry
    registry_sandbox machine_hive{HKEY_LOCAL_MACHINE};
    registry_sandbox user_hive{HKEY_CURRENT_USER};
    loaded_library library;
    real_session session;
    fake_machine machine{library.module()};
    call_sweep sweep{library.module()};
    // Of the suite; not in the case in which Windows names its programs.
    const std::filesystem::path folder =
        in_upper_case(std::filesystem::path{toy_library(L"any.dll")}.parent_path());
    const std::wstring upgrade_data = new_upgrade_data(); // of the folder, by this process's user and session
    const custom_actions::controlled_upgrade::context upgrade =
        custom_actions::controlled_upgrade::load_context(upgrade_data);

private:
    static std::wstring in_upper_case(std::wstring text)
    {
        CharUpperW(text.data());
        return text;
    }

    [[nodiscard]] std::wstring new_upgrade_data() const;
    void set_properties(const std::string& action) const;
};

// A test on the furnished machine, which the tests of a suite share.
class furnished_test : public testing::Test {
protected:
    static void TearDownTestSuite() { stage.reset(); }

    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "starts the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        if (!stage) {
            stage.emplace();
        }
    }

    inline static std::optional<furnished_machine> stage;
};

} // namespace test_support
