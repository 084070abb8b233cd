#pragma once

#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/call_sweep.h"
#include "tests/support/fake_machine.h"
#include "tests/support/furnished_registry.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"

#include <filesystem>
#include <set>
#include <string>

namespace test_support {

// The built library on a fake machine with something to do for every action: two programs of the suite, of
// which one has no window and must be killed, a host of one of its libraries, scratch hives, and the Task
// Scheduler's stand-in. The machine must be disposable. Only one may exist at a time.
class furnished_machine {
public:
    furnished_machine();

    // Sets everything up for a run of this action: its properties, its part of the registry, an upgrade that
    // its phase continues. Every program and Search run.
    void furnish(const std::string& action);

    // Sets the action's data.
    void pass(const std::wstring& data) const { session.set_property(L"CustomActionData", data); }

    // Makes the workspace if it is missing, and leaves it with these markers alone.
    void leave_markers(std::set<std::string> markers) const;

    static constexpr DWORD GONE = 0x7FFFFFF0; // the id of a listed program that has ended since

    // The keys that have lost another vendor's handler or icon, as "(loses PATH)"; see furnished_registry.h.
    [[nodiscard]] std::wstring lost() const
    {
        return test_support::lost(furnished_hive_, sweep.failed_keys());
    }

    toy_process main{L"Quorbel.exe"};
    toy_process helper{L"Quorbel.Kindra.HelperService.exe", L"--window=none"};
    toy_process explorer{L"explorer.exe"};
    scheduler_stand_in scheduler; // before the sandboxes: it needs the real registry
    registry_sandbox machine_hive{HKEY_LOCAL_MACHINE};
    registry_sandbox user_hive{HKEY_CURRENT_USER};
    loaded_library library;
    test_session session{library.module()};
    fake_machine machine{library.module()};
    call_sweep sweep{library.module()};
    // Of the suite; not in the case in which Windows names its programs.
    const std::filesystem::path folder =
        in_upper_case(std::filesystem::path{toy_library(L"any.dll")}.parent_path());
    const std::wstring upgrade_data = new_upgrade_data(folder.wstring());
    const custom_actions::controlled_upgrade::context upgrade =
        custom_actions::controlled_upgrade::load_context(upgrade_data);

private:
    static std::wstring in_upper_case(std::wstring text)
    {
        CharUpperW(text.data());
        return text;
    }

    void set_properties(const std::string& action) const;
    void begin_upgrade(bool installed) const;

    HKEY furnished_hive_ = nullptr; // none if the action does not work on one
};

} // namespace test_support
