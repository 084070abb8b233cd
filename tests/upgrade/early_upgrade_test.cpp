#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/early_upgrade.h"
#include "tests/support/child_process.h"
#include "tests/support/faults.h"
#include "tests/support/played_clock.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/scripted_session.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <objbase.h>
#include <tlhelp32.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace custom_actions {
namespace {

using namespace std::chrono_literals;
using test_support::end_programs;
using test_support::intercepted_import;
using test_support::thrown_by;
using test_support::toy_process;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ResultOf;
using testing::SizeIs;

constexpr const wchar_t* TASK_PROPERTY = L"QblEarlyRecoveryTask";
constexpr const wchar_t* TASK = L"QBL-EarlyRecovery-{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}";
constexpr const wchar_t* NOTHING_TO_CLOSE = L"Early closure: no matching QBL applications.";
constexpr HRESULT TOLD = E_OUTOFMEMORY;

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

std::wstring own_sid()
{
    kernel_handle token;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
    return token_user_sid(token.get());
}

DWORD own_session()
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return session;
}

std::wstring id_of(const toy_process& process)
{
    return L" " + std::to_wstring(process.id());
}

// `failure` with the code that the stand-in is told to fail with.
std::string told(const char* failure)
{
    return std::string{failure} + " (" + std::to_string(static_cast<DWORD>(TOLD)) + ")";
}

struct scheduler_call {
    const wchar_t* call;
    const char* failure;
};

// In the order in which they are made.
constexpr scheduler_call CLOSING[] = {
    {L"IClassFactory::CreateInstance", "Cannot open recovery scheduler"},
    {L"ITaskService::Connect", "Cannot connect recovery scheduler"},
    {L"ITaskService::GetFolder", "Cannot open recovery task folder"},
    {L"ITaskService::NewTask", "Cannot define early recovery"},
    {L"ITaskDefinition::get_Principal", "Cannot define recovery identity"},
    {L"IPrincipal::put_UserId", "Cannot set recovery user"},
    {L"IPrincipal::put_LogonType", "Cannot set interactive recovery"},
    {L"IPrincipal::put_RunLevel", "Cannot set limited recovery"},
    {L"ITaskDefinition::get_Settings", "Cannot define recovery settings"},
    {L"ITaskSettings::put_DisallowStartIfOnBatteries", "Cannot configure recovery power policy"},
    {L"ITaskSettings::put_StopIfGoingOnBatteries", "Cannot configure recovery power policy"},
    {L"ITaskSettings::put_ExecutionTimeLimit", "Cannot bound recovery launcher"},
    {L"ITaskDefinition::get_Actions", "Cannot define recovery action"},
    {L"IActionCollection::Create", "Cannot create recovery action"},
    {L"IAction::QueryInterface", "Cannot configure recovery executable"},
    {L"IExecAction::put_Path", "Cannot set recovery executable"},
    {L"IExecAction::put_Arguments", "Cannot set recovery command"},
    {L"ITaskFolder::RegisterTaskDefinition",
     "Cannot register early recovery; applications were left running"},
};

constexpr scheduler_call RECOVERY[] = {
    {L"IClassFactory::CreateInstance", "Cannot open recovery scheduler"},
    {L"ITaskService::Connect", "Cannot connect recovery scheduler"},
    {L"ITaskService::GetFolder", "Cannot open recovery task folder"},
    {L"ITaskFolder::GetTask", "Cannot find early recovery task"},
    {L"IRegisteredTask::Run", "Cannot launch early recovery task"},
    {L"IRunningTask::Refresh", "Cannot refresh recovery status"},
    {L"IRunningTask::get_State", "Cannot inspect recovery status"},
    {L"IRegisteredTask::get_LastTaskResult", "Cannot inspect recovery result"},
    {L"ITaskFolder::DeleteTask", "Cannot remove completed recovery task"},
};

class EarlyUpgrade : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "closes the suite's programs: set DISPOSABLE_MACHINE where that may be";
        }
        scheduler.emplace();
        set_user(own_session(), own_sid());
        session.set_property(TASK_PROPERTY, TASK);
        warm_up();
    }

    void TearDown() override
    {
        APTTYPE type{};
        APTTYPEQUALIFIER qualifier{};
        EXPECT_EQ(CoGetApartmentType(&type, &qualifier), CO_E_NOTINITIALIZED) << "as it was before";
    }

    // What the system opens at the first use of COM stays open.
    void warm_up()
    {
        try {
            early_upgrade::recover(session.handle());
        } catch (const windows_error&) {
            scheduler->clear();
        }
    }

    std::string prepare()
    {
        return thrown_by([this] { early_upgrade::prepare(session.handle()); });
    }

    std::string recover()
    {
        return thrown_by([this] { early_upgrade::recover(session.handle()); });
    }

    // Whose programs are to be closed.
    void set_user(DWORD session_id, const std::wstring& sid)
    {
        session.set_property(
            L"begin_controlled_upgrade",
            LR"(C:\Quorbel|)" + std::to_wstring(session_id) + L'|' + sid +
                L"|{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}");
    }

    // What is logged by now and was not before, without its prefix.
    std::vector<std::wstring> lines()
    {
        static constexpr std::wstring_view prefix = L"Controlled upgrade: ";
        std::vector<std::wstring> logged;
        for (; seen_ != session.messages().size(); ++seen_) {
            const auto& [type, text] = session.messages()[seen_];
            EXPECT_EQ(type, 0x04000000U);
            EXPECT_TRUE(text.starts_with(prefix)) << text;
            logged.push_back(text.substr(prefix.size()));
        }
        return logged;
    }

    std::optional<test_support::scheduler_stand_in> scheduler;
    test_support::scripted_session session{module_under_test()};

private:
    std::size_t seen_ = 0;
};

TEST_F(EarlyUpgrade, closes_the_programs_once_a_task_can_bring_them_back)
{
    const toy_process main_program{L"Quorbel.exe"};
    const toy_process again{L"Quorbel.exe", L"--class=Progman"};
    const toy_process hotkeys{L"Quorbel.HotkeyHandler.exe"};
    const toy_process tagging{L"quorbel.autotagging.service.EXE"};
    const toy_process other{L"Quorbel.Comment.exe"};
    {
        const test_support::played_clock stopped{module_under_test()}; // however busy the machine is
        EXPECT_EQ(prepare(), "");
    }

    EXPECT_EQ(main_program.exit_code(), 0U);
    EXPECT_EQ(again.exit_code(), 0U) << "whatever its window is";
    EXPECT_EQ(hotkeys.exit_code(), 0U);
    EXPECT_EQ(tagging.exit_code(), 0U);
    EXPECT_FALSE(other.exit_code());

    const auto tasks = scheduler->tasks();
    ASSERT_THAT(tasks, SizeIs(1));
    const auto& [name, task] = *tasks.begin();
    EXPECT_TRUE(early_upgrade::is_recovery_task(name)) << name;
    EXPECT_EQ(session.property(TASK_PROPERTY), name);
    EXPECT_THAT(
        lines(),
        ElementsAre(
            L"Early recovery registered: " + name,
            L"Early graceful requests: closing" + id_of(main_program) + id_of(again) + id_of(hotkeys) +
                id_of(tagging),
            L"Early graceful outcome: exited 4; remaining 0",
            L"Early graceful phase complete before InstallValidate; transactional shutdown will recheck "
            L"survivors."));

    auto properties = task;
    properties.erase(L"Arguments");
    const test_support::scheduler_stand_in::properties expected{
        {L"Path", system_directory("no system directory") + LR"(\WindowsPowerShell\v1.0\powershell.exe)"},
        {L"UserId", own_sid()},
        {L"LogonType", L"3"},
        {L"RunLevel", L"0"},
        {L"DisallowStartIfOnBatteries", L"0"},
        {L"StopIfGoingOnBatteries", L"0"},
        {L"ExecutionTimeLimit", L"PT30S"},
        {L"RegisteredUser", own_sid()},
        {L"RegisteredLogonType", L"3"}};
    EXPECT_EQ(properties, expected);
    std::vector<std::wstring> calls;
    std::ranges::transform(CLOSING, std::back_inserter(calls), &scheduler_call::call);
    EXPECT_EQ(scheduler->calls(), calls);
}

TEST_F(EarlyUpgrade, brings_back_each_program_that_it_closed_and_that_is_not_back_yet)
{
    const test_support::powershell_stand_in powershell;
    const auto folder = std::filesystem::temp_directory_path() / L"toy o'suite";
    const auto quoted = folder / L"Quorbel.HotkeyHandler.exe";
    std::filesystem::create_directories(folder);
    std::filesystem::copy_file(
        std::filesystem::path{test_support::this_program()}.parent_path() / L"toy_program.exe",
        quoted,
        std::filesystem::copy_options::overwrite_existing);
    {
        const toy_process main_program{L"Quorbel.exe"};
        const toy_process tray{L"Quorbel.SystemTray.exe"};
        const toy_process same_tray{L"Quorbel.SystemTray.exe"};
        const toy_process hotkeys{quoted.wstring()};
        const toy_process tagging{L"quorbel.autotagging.service.EXE"};
        EXPECT_EQ(prepare(), "");
    }
    const toy_process main_program{L"Quorbel.exe"}; // by the user himself
    EXPECT_EQ(recover(), "") << powershell.refused();
    ASSERT_THAT(powershell.scripts(), SizeIs(1));
    const std::wstring script = powershell.scripts().front();
    EXPECT_EQ(script.find(L"SystemTray"), script.rfind(L"SystemTray")) << "two processes of one path";
    EXPECT_EQ(end_programs(L"Quorbel.exe"), 1U);
    EXPECT_EQ(end_programs(L"Quorbel.SystemTray.exe"), 1U);
    EXPECT_EQ(end_programs(L"Quorbel.HotkeyHandler.exe"), 1U);
    EXPECT_EQ(end_programs(L"Quorbel.AutoTagging.Service.exe"), 0U);
    EXPECT_THAT(scheduler->tasks(), IsEmpty());
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

TEST_F(EarlyUpgrade, closes_nothing_that_it_cannot_bring_back)
{
    const toy_process main_program{L"Quorbel.exe"};
    unsigned asked = 0;
    const intercepted_import<"PostMessageW", decltype(PostMessageW)> requests{
        module_under_test(), [&](HWND, UINT, WPARAM, LPARAM) {
            ++asked;
            return std::optional<BOOL>{};
        }};
    std::vector<std::wstring> made;
    for (const auto& [call, failure] : CLOSING) {
        scheduler->clear();
        scheduler->fail(call, TOLD);
        EXPECT_EQ(prepare(), told(failure));
        made.emplace_back(call);
        EXPECT_EQ(scheduler->calls(), made);
        EXPECT_EQ(scheduler->objects(), 0U) << failure;
        EXPECT_THAT(scheduler->tasks(), IsEmpty());
    }
    scheduler->clear();
    const auto run = [this] { early_upgrade::prepare(session.handle()); };
    EXPECT_EQ(THROWN_WITH(run, CoInitializeEx, TOLD, {0}), told("Cannot open recovery scheduler"));
    EXPECT_EQ(
        THROWN_WITH(run, CoCreateInstance, REGDB_E_CLASSNOTREG, {0}),
        "Cannot open recovery scheduler (2147746132)");
    EXPECT_EQ(THROWN_WITH(run, GetSystemDirectoryW, 0, {5}), "Cannot resolve recovery executable");
    EXPECT_EQ(THROWN_WITH(run, CryptBinaryToStringW, FALSE, {5}), "Cannot encode recovery (5)");
    EXPECT_EQ(THROWN_WITH(run, CryptBinaryToStringW, FALSE, {5, 2}), "Cannot encode recovery (5)");
    EXPECT_EQ(THROWN_WITH(run, CoCreateGuid, TOLD, {0}), told("Cannot preserve early recovery identity"));
    session.fail(test_support::installer_call::set_property);
    EXPECT_EQ(prepare(), "Cannot preserve early recovery identity (1627)");
    EXPECT_EQ(
        THROWN_WITH(run, CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {5}),
        "Cannot snapshot processes (5)");
    // The first process to be opened is opened for its path, and the second time for its user.
    EXPECT_EQ(THROWN_WITH(run, OpenProcess, nullptr, {8, 2}), "Cannot identify early-close process (8)");
    EXPECT_EQ(THROWN_WITH(run, OpenProcessToken, FALSE, {5}), "Cannot identify early-close user (5)");
    session.set_property(L"begin_controlled_upgrade", L"");
    EXPECT_EQ(prepare(), "Invalid upgrade transaction data");
    EXPECT_THAT(scheduler->tasks(), IsEmpty());
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_EQ(asked, 0U);
    EXPECT_FALSE(main_program.exit_code());
}

TEST_F(EarlyUpgrade, leaves_alone_what_is_not_the_users_or_cannot_be_looked_at)
{
    const toy_process main_program{L"Quorbel.exe"};
    const auto run = [this] { early_upgrade::prepare(session.handle()); };
    EXPECT_EQ(THROWN_WITH(run, ProcessIdToSessionId, FALSE, {5, 1, 0}), "");
    EXPECT_EQ(THROWN_WITH(run, OpenProcess, nullptr, {ERROR_INVALID_PARAMETER}), "") << "gone, or unreadable";
    EXPECT_EQ(THROWN_WITH(run, OpenProcess, nullptr, {ERROR_ACCESS_DENIED, 1, 2}), "");
    EXPECT_EQ(THROWN_WITH(run, OpenProcess, nullptr, {ERROR_INVALID_PARAMETER, 2}), "") << "gone since then";
    set_user(own_session() + 1, own_sid());
    EXPECT_EQ(prepare(), "");
    set_user(own_session(), L"S-1-5-21-1-2-3-1001");
    EXPECT_EQ(prepare(), "");
    EXPECT_THAT(lines(), AllOf(SizeIs(6), Each(NOTHING_TO_CLOSE)));
    EXPECT_THAT(scheduler->calls(), IsEmpty());
    EXPECT_FALSE(main_program.exit_code());
}

TEST_F(EarlyUpgrade, registers_a_task_also_where_nothing_is_to_be_started_again)
{
    const test_support::powershell_stand_in powershell;
    const toy_process tagging{L"Quorbel.AutoTagging.Service.exe"};
    EXPECT_EQ(prepare(), "");
    EXPECT_EQ(tagging.exit_code(5s), 0U);
    EXPECT_THAT(scheduler->tasks(), SizeIs(1));
    EXPECT_EQ(recover(), "") << powershell.refused();
    EXPECT_EQ(end_programs(L"Quorbel.AutoTagging.Service.exe"), 0U);
}

TEST_F(EarlyUpgrade, gives_all_programs_two_seconds_together_and_ends_none)
{
    const toy_process stubborn{L"Quorbel.exe", L"--window=ignores"};
    const toy_process polite{L"Quorbel.SystemTray.exe"};
    const toy_process gone{L"Quorbel.HotkeyHandler.exe"};
    std::vector<DWORD> limits;
    {
        const test_support::played_clock clock{module_under_test()};
        const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> waits{
            module_under_test(), [&](HANDLE process, DWORD limit) -> std::optional<DWORD> {
                limits.push_back(limit);
                Sleep(limit); // of the played clock
                return WaitForSingleObjectEx(process, limit == 0 ? 5000 : 100, FALSE);
            }};
        const test_support::failing_import<"OpenProcess", decltype(OpenProcess)> last_open{
            module_under_test(), nullptr, {ERROR_INVALID_PARAMETER, 9}};
        EXPECT_EQ(prepare(), "");
    }
    EXPECT_THAT(limits, ElementsAre(2000U, 0U));
    EXPECT_THAT(lines(), Contains(L"Early graceful outcome: exited 2; remaining 1"));
    EXPECT_FALSE(stubborn.exit_code());
    EXPECT_EQ(polite.exit_code(), 0U);
}

TEST_F(EarlyUpgrade, goes_on_where_com_is_there_in_the_other_model)
{
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    const toy_process main_program{L"Quorbel.exe"};
    EXPECT_EQ(prepare(), "");
    scheduler->end_with(S_OK);
    EXPECT_EQ(recover(), "");
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE) << "still there";
    CoUninitialize();
    CoUninitialize();
}

class EarlyRecovery : public EarlyUpgrade {
protected:
    void SetUp() override
    {
        EarlyUpgrade::SetUp();
        if (!IsSkipped()) {
            plant_task(L"exit 0");
        }
    }

    // The task, as one that runs this command.
    void plant_task(const std::wstring& command)
    {
        scheduler->clear();
        scheduler->register_task(
            TASK,
            {{L"Path", system_directory("no system directory") + LR"(\cmd.exe)"},
             {L"Arguments", L"/c " + command}});
    }
};

TEST_F(EarlyRecovery, runs_the_task_and_removes_it)
{
    EXPECT_EQ(recover(), "");
    EXPECT_THAT(lines(), ElementsAre(L"Early recovery completed as original desktop user."));
    EXPECT_THAT(scheduler->tasks(), IsEmpty());
    EXPECT_EQ(recover(), "Cannot find early recovery task (2147942402)") << "removed by somebody";
    session.set_property(TASK_PROPERTY, L"");
    EXPECT_EQ(recover(), "") << "nothing was closed";
}

TEST_F(EarlyRecovery, keeps_the_task_where_anything_fails)
{
    plant_task(L"exit 7");
    EXPECT_EQ(recover(), "Early recovery launcher failed; task retained");
    for (const auto& [call, failure] : RECOVERY) {
        plant_task(L"exit 0");
        scheduler->fail(call, TOLD);
        if (call == std::wstring_view{L"IRunningTask::get_State"}) {
            scheduler->stay_in(4);
        }
        EXPECT_EQ(recover(), told(failure));
        EXPECT_EQ(scheduler->calls().back(), call);
        EXPECT_EQ(scheduler->objects(), 0U) << failure;
        EXPECT_THAT(scheduler->tasks(), SizeIs(1)) << failure;
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EarlyRecovery, waits_fifteen_seconds_for_a_task_that_is_queued_or_runs)
{
    for (const DWORD state : {2U, 4U}) {
        scheduler->stay_in(state);
        const test_support::played_clock clock{module_under_test()};
        EXPECT_EQ(recover(), "Early recovery launcher timed out; task retained");
        EXPECT_THAT(clock.sleeps(), AllOf(SizeIs(150), Each(100U)));
    }
    for (const DWORD state : {0U, 1U, 3U}) {
        scheduler->stay_in(state);
        const test_support::played_clock clock{module_under_test()};
        EXPECT_EQ(recover(), "Early recovery launcher failed; task retained") << "it is still running";
        EXPECT_THAT(clock.sleeps(), IsEmpty());
    }
    EXPECT_THAT(scheduler->tasks(), SizeIs(1));
}

TEST_F(EarlyRecovery, refuses_what_is_no_name_of_a_task_before_anybody_is_asked)
{
    const std::wstring name = TASK;
    std::vector<std::wstring> refused{name + L'0', L'q' + name.substr(1), std::wstring(56, L'0')};
    for (std::size_t length = 0; length != name.size(); ++length) {
        refused.push_back(name.substr(0, length));
    }
    for (wchar_t letter = 0; letter != 0x180; ++letter) {
        if (std::wstring_view{L"{}-0123456789ABCDEFabcdef"}.find(letter) == std::wstring_view::npos) {
            refused.push_back(name.substr(0, 40) + letter + name.substr(41));
        }
    }
    EXPECT_THAT(refused, Each(ResultOf(early_upgrade::is_recovery_task, false)));
    EXPECT_TRUE(early_upgrade::is_recovery_task(
        L"QBL-EarlyRecovery-abcdefABCDEF{}-0123456789" + std::wstring(13, L'-')));

    session.set_property(TASK_PROPERTY, name.substr(1));
    EXPECT_EQ(recover(), "Invalid early recovery identity");
    EXPECT_THAT(scheduler->calls(), IsEmpty());
}

} // namespace
} // namespace custom_actions
