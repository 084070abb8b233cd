#pragma once

#include "custom_actions/upgrade/context.h"
#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/call_sweep.h"
#include "tests/support/fake_machine.h"
#include "tests/support/furnished_registry.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/test_session.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
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

    // Installs the suite, all users', with this key path.
    void install_at(const std::wstring& key_path);

    // The workspace's markers.
    [[nodiscard]] std::set<std::wstring> markers() const;

    // Makes the workspace if it is missing, and leaves it with these markers alone.
    void leave_markers(const std::set<std::wstring>& wanted) const;

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
