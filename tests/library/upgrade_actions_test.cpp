// prepare_controlled_upgrade, early_close_upgrade and recover_early_upgrade in the built library, the last
// two with the stand-in of the Task Scheduler.

#include "custom_actions/common/system_directory.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "tests/support/failing_import.h"
#include "tests/support/played_clock.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

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
using testing::IsEmpty;
using testing::SizeIs;

constexpr const wchar_t* BEGIN = L"begin_controlled_upgrade";
constexpr const wchar_t* PRODUCT = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* TASK_PROPERTY = L"QblEarlyRecoveryTask";
constexpr const wchar_t* GUID_TEXT = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
const std::wstring TASK = std::wstring{L"QBL-EarlyRecovery-"} + GUID_TEXT;
const std::wstring NOT_CLOSED = L"Controlled upgrade: Early closure failed: ";
const std::wstring NOT_RECOVERED = L"Controlled upgrade: Early recovery failed: ";

class UpgradeActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP()
                << "closes the suite's programs and Explorer: set DISPOSABLE_MACHINE where that may be";
        }
        scheduler.emplace();
        session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
        session.set_property(BEGIN, data);
    }

    // Runs the action and returns what it posted.
    std::vector<std::wstring> run(const char* action, UINT code)
    {
        const std::size_t before = session.messages().size();
        EXPECT_EQ(library.call(action, session.handle()), code);
        std::vector<std::wstring> posted;
        for (std::size_t i = before; i != session.messages().size(); ++i) {
            posted.push_back(session.messages()[i].text);
        }
        return posted;
    }

    std::wstring refusal()
    {
        const auto posted = run("prepare_controlled_upgrade", 1603);
        return posted.empty() ? L"" : posted.back();
    }

    std::vector<std::wstring> close(UINT code = 1603) { return run("early_close_upgrade", code); }

    std::vector<std::wstring> recover(UINT code = 1603) { return run("recover_early_upgrade", code); }

    void install(const std::wstring& key_path)
    {
        session.install_component(PRODUCT, L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}", key_path);
    }

    loaded_library library;
    scripted_session session{library.module()};
    std::optional<scheduler_stand_in> scheduler;
    const std::wstring data = new_upgrade_data(LR"(C:\Quorbel)");
    const custom_actions::controlled_upgrade::context upgrade = load_context(data);
};

TEST_F(UpgradeActions, pin_the_folder_and_hand_the_same_to_all_phases)
{
    struct {
        const wchar_t* key_path;
        const wchar_t* pinned;
    } static constexpr cases[]{
        {LR"(C:\Apps\Suite\Quorbel.EXE)", LR"(C:\Apps\Suite\)"},
        {LR"(C:\It's [1].exe\\Quorbel.exe)", LR"(C:\It's [1].exe\)"},
        {LR"(C:\Apps\Suite)", LR"(C:\Apps\Suite\)"},
        {LR"(C:\Apps\Suite.exe\)", LR"(C:\Apps\Suite.exe\)"},
        {LR"(C:\Quorbel.exe)", LR"(C:\)"},
    };

    end_explorer();
    const toy_process explorer{L"explorer.exe", L"--window=none"};
    std::wstring last_transaction;
    for (const auto& [key_path, pinned] : cases) {
        install(key_path);
        EXPECT_THAT(run("prepare_controlled_upgrade", 0), IsEmpty());
        EXPECT_EQ(session.property(L"INSTALLFOLDER"), pinned);
        const std::wstring told = session.property(BEGIN).value_or(L"");
        for (const wchar_t* phase :
             {L"install_upgrade_packages", L"rollback_controlled_upgrade", L"finish_controlled_upgrade"}) {
            EXPECT_EQ(session.property(phase), told);
        }
        const std::wstring transaction = told.substr(told.size() - 38);
        EXPECT_EQ(told, format_context(pinned, upgrade.session_id, upgrade.user_sid, transaction));
        EXPECT_NE(transaction, last_transaction);
        last_transaction = transaction;
    }
}

TEST_F(UpgradeActions, refuse_an_upgrade_that_could_not_be_undone)
{
    end_explorer();
    install(LR"(C:\Apps\Suite)");
    session.set_property(BEGIN, L"");
    EXPECT_EQ(refusal(), L"Quorbel upgrade: Sign into the desktop before upgrading Quorbel");
    const toy_process explorer{L"explorer.exe", L"--window=none"};
    session.set_property(L"RollbackDisabled", L"1");
    EXPECT_EQ(refusal(), L"Quorbel upgrade: Controlled upgrade requires Windows Installer rollback");
    session.set_property(L"RollbackDisabled", L"");
    for (const std::wstring& detected : {std::wstring{}, std::wstring{PRODUCT} + L';' + PRODUCT}) {
        session.set_property(L"WIX_UPGRADE_DETECTED", detected);
        EXPECT_EQ(refusal(), L"Quorbel upgrade: Expected one installed product to upgrade");
    }
    session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
    session.fail(installer_call::get_component_path, static_cast<UINT>(INSTALLSTATE_SOURCE));
    EXPECT_EQ(refusal(), L"Quorbel upgrade: Cannot resolve the installed product directory");
    session.fail(installer_call::set_target_path);
    EXPECT_EQ(refusal(), L"Quorbel upgrade: Cannot preserve installed product directory");
    install(LR"(C:\Apps|Suite)");
    EXPECT_EQ(refusal(), L"Quorbel upgrade: Invalid upgrade transaction data") << "which no phase could read";
    EXPECT_EQ(session.property(BEGIN), std::nullopt);

    install(LR"(C:\Apps\Suite)");
    session.fail(installer_call::set_property, ERROR_FUNCTION_FAILED, 4);
    EXPECT_EQ(refusal(), L"Quorbel upgrade: Cannot schedule upgrade recovery");
    EXPECT_FALSE(session.property(L"finish_controlled_upgrade"));
}

TEST_F(UpgradeActions, close_programs_early_once_a_task_can_bring_them_back)
{
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK) << "not the model of the scheduler";
    const toy_process stubborn{L"Quorbel.exe", L"--window=ignores"};
    const toy_process tray{L"Quorbel.SystemTray.exe", L"--class=Progman"};
    const toy_process tagging{L"quorbel.autotagging.service.EXE"};
    const toy_process other{L"Quorbel.Comment.exe"};
    std::vector<std::wstring> logged;
    std::vector<DWORD> limits;
    {
        ULONGLONG now = 0; // each wait takes all the time that it may
        const intercepted_import<"GetTickCount64", decltype(GetTickCount64)> clock{
            library.module(), [&] { return std::optional{now}; }};
        const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> waits{
            library.module(), [&](HANDLE process, DWORD limit) {
                limits.push_back(limit);
                now += limit;
                return std::optional{WaitForSingleObjectEx(process, limit == 0 ? 5000 : 100, FALSE)};
            }};
        logged = close(0);
    }
    const auto tasks = scheduler->tasks();
    ASSERT_THAT(tasks, SizeIs(1));
    auto [name, task] = *tasks.begin();
    EXPECT_THAT(
        logged,
        ElementsAre(
            L"Controlled upgrade: Early recovery registered: " + name,
            L"Controlled upgrade: Early graceful requests: closing " + std::to_wstring(stubborn.id()) + L' ' +
                std::to_wstring(tray.id()) + L' ' + std::to_wstring(tagging.id()),
            L"Controlled upgrade: Early graceful outcome: exited 2; remaining 1",
            L"Controlled upgrade: Early graceful phase complete before InstallValidate; transactional "
            L"shutdown will recheck survivors."));
    EXPECT_THAT(limits, ElementsAre(2000U, 0U, 0U)) << "for all of them together";
    EXPECT_FALSE(stubborn.exit_code()) << "asked and not ended";
    EXPECT_EQ(tray.exit_code(), 0U) << "whatever its window is";
    EXPECT_FALSE(other.exit_code());

    EXPECT_EQ(session.property(TASK_PROPERTY), name);
    task.erase(L"Arguments");
    const std::wstring powershell = LR"(\WindowsPowerShell\v1.0\powershell.exe)";
    const scheduler_stand_in::properties expected{
        {L"Path", custom_actions::system_directory("no system directory") + powershell},
        {L"UserId", upgrade.user_sid},
        {L"LogonType", L"3"},
        {L"RunLevel", L"0"},
        {L"DisallowStartIfOnBatteries", L"0"},
        {L"StopIfGoingOnBatteries", L"0"},
        {L"ExecutionTimeLimit", L"PT30S"},
        {L"RegisteredUser", upgrade.user_sid},
        {L"RegisteredLogonType", L"3"}};
    EXPECT_EQ(task, expected);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE) << "still the caller's";
    CoUninitialize();
    CoUninitialize();
}

// A call to the scheduler, and what its failure becomes.
struct scheduler_call {
    const wchar_t* call;
    const wchar_t* failure;
};

TEST_F(UpgradeActions, close_nothing_early_that_cannot_be_brought_back)
{
    static constexpr scheduler_call calls[]{
        {L"IClassFactory::CreateInstance", L"Cannot open recovery scheduler"},
        {L"ITaskService::Connect", L"Cannot connect recovery scheduler"},
        {L"ITaskService::GetFolder", L"Cannot open recovery task folder"},
        {L"ITaskService::NewTask", L"Cannot define early recovery"},
        {L"ITaskDefinition::get_Principal", L"Cannot define recovery identity"},
        {L"IPrincipal::put_UserId", L"Cannot set recovery user"},
        {L"IPrincipal::put_LogonType", L"Cannot set interactive recovery"},
        {L"IPrincipal::put_RunLevel", L"Cannot set limited recovery"},
        {L"ITaskDefinition::get_Settings", L"Cannot define recovery settings"},
        {L"ITaskSettings::put_DisallowStartIfOnBatteries", L"Cannot configure recovery power policy"},
        {L"ITaskSettings::put_StopIfGoingOnBatteries", L"Cannot configure recovery power policy"},
        {L"ITaskSettings::put_ExecutionTimeLimit", L"Cannot bound recovery launcher"},
        {L"ITaskDefinition::get_Actions", L"Cannot define recovery action"},
        {L"IActionCollection::Create", L"Cannot create recovery action"},
        {L"IAction::QueryInterface", L"Cannot configure recovery executable"},
        {L"IExecAction::put_Path", L"Cannot set recovery executable"},
        {L"IExecAction::put_Arguments", L"Cannot set recovery command"},
        {L"ITaskFolder::RegisterTaskDefinition",
         L"Cannot register early recovery; applications were left running"},
    };

    const toy_process main_program{L"Quorbel.exe"};
    unsigned asked = 0;
    const intercepted_import<"PostMessageW", decltype(PostMessageW)> requests{
        library.module(), [&](HWND, UINT, WPARAM, LPARAM) {
            ++asked;
            return std::optional<BOOL>{};
        }};
    for (const auto& [call, failure] : calls) {
        scheduler->clear();
        scheduler->fail(call);
        EXPECT_THAT(close(), ElementsAre(NOT_CLOSED + failure)) << call;
        EXPECT_EQ(scheduler->objects(), 0U) << call;
    }
    scheduler->clear();
    session.fail(installer_call::set_property);
    EXPECT_THAT(close(), ElementsAre(NOT_CLOSED + L"Cannot preserve early recovery identity"));

    const std::wstring nothing = L"Controlled upgrade: Early closure: no matching QBL applications.";
    for (const unsigned nth : {1U, 2U}) { // for its path, and for its user
        const failing_import<"OpenProcess", decltype(OpenProcess)> gone{
            library.module(), nullptr, {ERROR_INVALID_PARAMETER, nth}};
        EXPECT_THAT(close(0), ElementsAre(nothing));
    }
    for (const std::wstring& others :
         {format_context(L"C:\\Quorbel", upgrade.session_id + 1, upgrade.user_sid, GUID_TEXT),
          format_context(L"C:\\Quorbel", upgrade.session_id, L"S-1-5-18", GUID_TEXT)}) {
        session.set_property(BEGIN, others);
        EXPECT_THAT(close(0), ElementsAre(nothing));
    }
    EXPECT_THAT(scheduler->tasks(), IsEmpty());
    EXPECT_EQ(asked, 0U);
}

TEST_F(UpgradeActions, keep_the_recovery_task_until_it_has_succeeded)
{
    static constexpr scheduler_call calls[]{
        {L"ITaskFolder::GetTask", L"Cannot find early recovery task"},
        {L"IRegisteredTask::Run", L"Cannot launch early recovery task"},
        {L"IRunningTask::Refresh", L"Cannot refresh recovery status"},
        {L"IRunningTask::get_State", L"Cannot inspect recovery status"},
        {L"IRegisteredTask::get_LastTaskResult", L"Cannot inspect recovery result"},
        {L"ITaskFolder::DeleteTask", L"Cannot remove completed recovery task"},
    };

    EXPECT_THAT(recover(0), IsEmpty()) << "nothing was closed";
    session.set_property(TASK_PROPERTY, TASK);
    scheduler->register_task(TASK);
    scheduler->end_with(7);
    EXPECT_THAT(recover(), ElementsAre(NOT_RECOVERED + L"Early recovery launcher failed; task retained"));
    scheduler->end_with(S_OK);
    for (const TASK_STATE state : {TASK_STATE_QUEUED, TASK_STATE_RUNNING}) {
        scheduler->stay_in(state);
        const played_clock clock{library.module()};
        EXPECT_THAT(
            recover(), ElementsAre(NOT_RECOVERED + L"Early recovery launcher timed out; task retained"));
        EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(150, 100));
    }
    scheduler->stay_in(TASK_STATE_READY);
    for (const auto& [call, failure] : calls) {
        scheduler->fail(call);
        EXPECT_THAT(recover(), ElementsAre(NOT_RECOVERED + failure));
        EXPECT_EQ(scheduler->objects(), 0U) << call;
    }
    EXPECT_THAT(scheduler->tasks(), SizeIs(1));

    for (const std::wstring& name :
         {TASK.substr(1), TASK + L'0', L'q' + TASK.substr(1), TASK.substr(0, 55) + L'\\'}) {
        session.set_property(TASK_PROPERTY, name);
        EXPECT_THAT(recover(), ElementsAre(NOT_RECOVERED + L"Invalid early recovery identity"));
    }
}

} // namespace
} // namespace test_support
