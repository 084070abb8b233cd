// prepare_controlled_upgrade, early_close_upgrade and recover_early_upgrade of the built library, the last
// two with the Task Scheduler's stand-in.

#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "tests/support/failing_import.h"
#include "tests/support/fake_clock.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <objbase.h>
#include <taskschd.h>

#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

using custom_actions::controlled_upgrade::format_context;
using custom_actions::controlled_upgrade::load_context;
using testing::ElementsAre;
using testing::EndsWith;

constexpr const wchar_t* BEGIN = L"begin_controlled_upgrade";
constexpr const wchar_t* TASK_PROPERTY = L"QblEarlyRecoveryTask";
constexpr const wchar_t* GUID_TEXT = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";

class UpgradeActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "closes programs and Explorer: set DISPOSABLE_MACHINE if that is allowed";
        }
        scheduler.emplace();
        session.set_property(BEGIN, data);
    }

    // Runs the action and returns its last message; "" if there was none.
    std::wstring run(const char* action, UINT code = 1603)
    {
        const std::size_t before = session.messages().size();
        EXPECT_EQ(library.call(action, session.handle()), code);
        return session.messages().size() == before ? L"" : session.messages().back().text;
    }

    loaded_library library;
    test_session session{library.module()};
    std::optional<scheduler_stand_in> scheduler;
    const std::wstring data = new_upgrade_data(LR"(C:\Quorbel)");
    const custom_actions::controlled_upgrade::context upgrade = load_context(data);
};

TEST_F(UpgradeActions, pin_the_folder_and_refuse_what_could_not_be_undone)
{
    const std::wstring product = L"{11111111-2222-3333-4444-555555555555}";
    const auto prepare = [&](const std::wstring& key_path, UINT code = 1603) {
        session.install_component(product, L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}", key_path);
        return run("prepare_controlled_upgrade", code);
    };
    session.set_property(L"WIX_UPGRADE_DETECTED", product);
    end_explorer();
    EXPECT_EQ(prepare(L"C:\\a"), L"Quorbel upgrade: Sign into the desktop before upgrading Quorbel");
    const toy_process explorer{L"explorer.exe", L"--window=none"};
    EXPECT_EQ(prepare(L"C:\\a|b"), L"Quorbel upgrade: Invalid upgrade transaction data");
    EXPECT_EQ(prepare(L"C:\\a.exe\\b", 0), L"");
    EXPECT_EQ(session.property(L"INSTALLFOLDER"), L"C:\\a.exe\\b\\");
    EXPECT_EQ(prepare(L"C:\\It's [1].exe\\\\Quorbel.EXE", 0), L"");
    EXPECT_EQ(session.property(L"INSTALLFOLDER"), L"C:\\It's [1].exe\\");
    session.set_property(L"WIX_UPGRADE_DETECTED", product + L';' + product);
    EXPECT_EQ(prepare(L"C:\\a"), L"Quorbel upgrade: Expected one installed product to upgrade");
    session.set_property(L"RollbackDisabled", L"1");
    EXPECT_THAT(prepare(L"C:\\a"), EndsWith(L"Controlled upgrade requires Windows Installer rollback"));
}

TEST_F(UpgradeActions, close_programs_early_once_a_task_can_bring_them_back)
{
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK) << "not the model of the scheduler";
    const toy_process stubborn{L"Quorbel.exe", L"--window=ignores"};
    const toy_process tray{L"Quorbel.SystemTray.exe", L"--class=Progman"};
    // Each reading of the clock advances it by 990 ms.
    const intercepted_import<"GetTickCount64", decltype(GetTickCount64)> clock{
        library.module(), [now = ULONGLONG{0}]() mutable { return std::optional{now += 990}; }};
    std::vector<DWORD> limits;
    const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> waits{
        library.module(), [&](HANDLE process, DWORD limit) {
            limits.push_back(limit);
            return std::optional{WaitForSingleObjectEx(process, limit == 20 ? 5000 : 0, FALSE)};
        }};
    run("early_close_upgrade", 0);
    EXPECT_THAT(limits, ElementsAre(1010U, 20U)) << "2 seconds for all programs together";
    EXPECT_FALSE(stubborn.exit_code()) << "a program that ignores the request is not killed";
    EXPECT_EQ(tray.exit_code(), 0U) << "a program is closed whatever the class of its window";

    const toy_scheduler::properties expected{
        {L"UserId", upgrade.user_sid},
        {L"LogonType", L"3"},
        {L"RunLevel", L"0"},
        {L"DisallowStartIfOnBatteries", L"0"},
        {L"StopIfGoingOnBatteries", L"0"},
        {L"ExecutionTimeLimit", L"PT30S"},
        {L"Priority", L"5"},
        {L"RegisteredUser", upgrade.user_sid},
        {L"RegisteredLogonType", L"3"}};
    const std::wstring name = session.property(TASK_PROPERTY).value_or(L"");
    EXPECT_THAT(toy_scheduler::task_names(), ElementsAre(name));
    EXPECT_THAT(toy_scheduler::load_task(name), testing::Optional(testing::IsSupersetOf(expected)));
    CoUninitialize();
}

TEST_F(UpgradeActions, close_nothing_early_that_cannot_be_brought_back)
{
    const toy_process main_program{L"Quorbel.exe"};
    scheduler->fail(L"ITaskFolder::RegisterTaskDefinition");
    EXPECT_THAT(run("early_close_upgrade"), EndsWith(L"; applications were left running"));
    scheduler->clear();
    for (const std::wstring& others :
         {format_context(L"C:\\a", upgrade.session_id + 1, upgrade.user_sid, GUID_TEXT),
          format_context(L"C:\\a", upgrade.session_id, L"S-1-5-18", GUID_TEXT)}) {
        session.set_property(BEGIN, others);
        EXPECT_THAT(run("early_close_upgrade", 0), EndsWith(L"no matching QBL applications."));
    }
    session.set_property(BEGIN, data);
    const failing_import<"OpenProcess", decltype(OpenProcess)> gone{
        library.module(), nullptr, {ERROR_INVALID_PARAMETER, 2}}; // the call that looks up its user
    EXPECT_THAT(run("early_close_upgrade", 0), EndsWith(L"no matching QBL applications."));
    EXPECT_FALSE(main_program.exit_code()) << "it was asked to close";
}

TEST_F(UpgradeActions, keep_the_recovery_task_until_it_has_succeeded)
{
    const std::wstring task = std::wstring{L"QBL-EarlyRecovery-"} + GUID_TEXT;
    EXPECT_EQ(run("recover_early_upgrade", 0), L"") << "nothing was closed";
    for (const std::wstring& name :
         {task.substr(1), task + L'0', L'q' + task.substr(1), task.substr(0, 55) + L'\\'}) {
        session.set_property(TASK_PROPERTY, name);
        EXPECT_THAT(run("recover_early_upgrade"), EndsWith(L"failed: Invalid early recovery identity"));
    }
    session.set_property(TASK_PROPERTY, task);
    scheduler->register_task(task);
    for (const TASK_STATE state : {TASK_STATE_QUEUED, TASK_STATE_RUNNING}) {
        scheduler->stay_in(state);
        const fake_clock clock{library.module()};
        EXPECT_THAT(run("recover_early_upgrade"), EndsWith(L"launcher timed out; task retained"));
        EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(150, 100));
    }
    scheduler->stay_in(TASK_STATE_READY);
    scheduler->end_with(7);
    EXPECT_THAT(run("recover_early_upgrade"), EndsWith(L"launcher failed; task retained"));
    EXPECT_THAT(toy_scheduler::task_names(), ElementsAre(task));
}

} // namespace
} // namespace test_support
