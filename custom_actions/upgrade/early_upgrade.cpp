#include "custom_actions/upgrade/early_upgrade.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/process_closing.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/process_location.h"
#include "custom_actions/upgrade/task_scheduler.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <stdexcept>

namespace custom_actions::early_upgrade {
namespace {

constexpr std::wstring_view TASK_PREFIX = L"QBL-EarlyRecovery-";
constexpr const wchar_t* TASK_PROPERTY = L"QblEarlyRecoveryTask";
constexpr const wchar_t* NEVER_RESTARTED = L"Quorbel.AutoTagging.Service.exe";

name_list early_close_images()
{
    return {
        L"Quorbel.exe",
        L"Sorvane.Common.TagManager.exe",
        L"Quorbel.HotkeyHandler.exe",
        L"Quorbel.Kindra.HelperService.exe",
        NEVER_RESTARTED,
        L"Quorbel.SystemTray.exe",
    };
}

struct running_programs {
    process_list processes;             // to be asked to close
    std::vector<std::wstring> programs; // to be started again, each once
};

bool runs_in_session(DWORD process, DWORD session) noexcept
{
    DWORD found = 0;
    return ProcessIdToSessionId(process, &found) && found == session;
}

// Nothing where the path cannot be read, whatever the reason.
std::optional<std::wstring> readable_image_path(DWORD process, DWORD session)
{
    try {
        return controlled_upgrade::image_path(process, session);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// Nothing where the process has gone.
std::optional<std::wstring> process_user(DWORD process)
{
    const kernel_handle opened{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process)};
    if (!opened) {
        if (GetLastError() == ERROR_INVALID_PARAMETER) {
            return std::nullopt;
        }
        throw_last_error("Cannot identify early-close process");
    }
    kernel_handle token;
    if (!OpenProcessToken(opened.get(), TOKEN_QUERY, token.put())) {
        throw_last_error("Cannot identify early-close user");
    }
    return token_user_sid(token.get());
}

running_programs find_programs(const controlled_upgrade::context& context)
{
    running_programs found;
    for (const DWORD process : find_processes_by_image(early_close_images(), listing::strict)) {
        if (!runs_in_session(process, context.session_id)) {
            continue;
        }
        const std::optional<std::wstring> path = readable_image_path(process, context.session_id);
        if (!path || process_user(process) != context.user_sid) {
            continue;
        }
        found.processes.push_back(process);
        if (!equal_ignoring_case(file_name(*path), NEVER_RESTARTED) &&
            std::ranges::find(found.programs, *path) == found.programs.end()) {
            found.programs.push_back(*path);
        }
    }
    return found;
}

void set_identity(ITaskDefinition* definition, const std::wstring& user_sid)
{
    com_pointer<IPrincipal> principal;
    require(definition->get_Principal(principal.put()), "Cannot define recovery identity");
    require(principal.get()->put_UserId(make_com_string(user_sid).get()), "Cannot set recovery user");
    require(principal.get()->put_LogonType(TASK_LOGON_INTERACTIVE_TOKEN), "Cannot set interactive recovery");
    require(principal.get()->put_RunLevel(TASK_RUNLEVEL_LUA), "Cannot set limited recovery");
}

void set_limits(ITaskDefinition* definition)
{
    com_pointer<ITaskSettings> settings;
    require(definition->get_Settings(settings.put()), "Cannot define recovery settings");
    constexpr const char* power_failure = "Cannot configure recovery power policy";
    require(settings.get()->put_DisallowStartIfOnBatteries(VARIANT_FALSE), power_failure);
    require(settings.get()->put_StopIfGoingOnBatteries(VARIANT_FALSE), power_failure);
    require(
        settings.get()->put_ExecutionTimeLimit(make_com_string(L"PT30S").get()),
        "Cannot bound recovery launcher");
    // The scheduler's default is below normal, and what the task starts would inherit that. 5 is normal.
    settings.get()->put_Priority(5);
}

void set_action(ITaskDefinition* definition, const std::wstring& script)
{
    com_pointer<IActionCollection> actions;
    require(definition->get_Actions(actions.put()), "Cannot define recovery action");
    com_pointer<IAction> action;
    require(actions.get()->Create(TASK_ACTION_EXEC, action.put()), "Cannot create recovery action");
    void* executable_interface = nullptr;
    require(
        action.get()->QueryInterface(IID_IExecAction, &executable_interface),
        "Cannot configure recovery executable");
    const com_pointer<IExecAction> executable{static_cast<IExecAction*>(executable_interface)};

    const std::wstring program = powershell_program(system_directory("Cannot resolve recovery executable"));
    const std::wstring arguments = powershell_arguments(script, "Cannot encode recovery");
    require(executable.get()->put_Path(make_com_string(program).get()), "Cannot set recovery executable");
    require(executable.get()->put_Arguments(make_com_string(arguments).get()), "Cannot set recovery command");
}

void register_recovery(
    MSIHANDLE session, const std::wstring& user_sid, const std::vector<std::wstring>& programs)
{
    task_scheduler scheduler;
    const com_pointer<ITaskDefinition> definition = scheduler.new_definition();
    set_identity(definition.get(), user_sid);
    set_limits(definition.get());
    set_action(definition.get(), recovery_script(programs));

    constexpr const char* identity_failure = "Cannot preserve early recovery identity";
    const std::wstring name = std::wstring{TASK_PREFIX} + new_guid(identity_failure, identity_failure);
    if (const UINT result = MsiSetPropertyW(session, TASK_PROPERTY, name.c_str()); result != ERROR_SUCCESS) {
        throw windows_error{identity_failure, result};
    }
    scheduler.register_task(name, definition.get(), user_sid);
    upgrade_log(session, L"Early recovery registered: " + name);
}

// How many of the processes have ended 2 seconds later.
std::size_t wait_for_exits(const process_list& processes)
{
    const ULONGLONG deadline = GetTickCount64() + 2000;
    return static_cast<std::size_t>(std::ranges::count_if(processes, [&](DWORD process) {
        const kernel_handle opened{OpenProcess(SYNCHRONIZE, FALSE, process)};
        if (!opened) {
            return GetLastError() == ERROR_INVALID_PARAMETER;
        }
        return WaitForSingleObject(opened.get(), time_left(deadline)) == WAIT_OBJECT_0;
    }));
}

void close_programs(MSIHANDLE session, const process_list& processes)
{
    const auto log = [session](const std::wstring& line) { upgrade_log(session, line); };
    log_process_group(log, L"Early graceful requests", processes);
    ask_windows_to_close(processes, asked_windows::all);
    const std::size_t exited = wait_for_exits(processes);
    log(L"Early graceful outcome: exited " + std::to_wstring(exited) + L"; remaining " +
        std::to_wstring(processes.size() - exited));
    log(L"Early graceful phase complete before InstallValidate; transactional shutdown will recheck "
        L"survivors.");
}

void wait_for_launcher(IRunningTask* running)
{
    const ULONGLONG deadline = GetTickCount64() + 15'000;
    for (;;) {
        const HRESULT refreshed = running->Refresh();
        if (refreshed == SCHED_E_TASK_NOT_RUNNING) {
            return;
        }
        require(refreshed, "Cannot refresh recovery status");
        TASK_STATE state{};
        require(running->get_State(&state), "Cannot inspect recovery status");
        if (state != TASK_STATE_QUEUED && state != TASK_STATE_RUNNING) {
            return;
        }
        if (GetTickCount64() >= deadline) {
            throw std::runtime_error{"Early recovery launcher timed out; task retained"};
        }
        Sleep(100);
    }
}

void run_recovery(const std::wstring& name)
{
    task_scheduler scheduler;
    const com_pointer<IRegisteredTask> task = scheduler.find_task(name);
    com_pointer<IRunningTask> running;
    require(task.get()->Run(VARIANT{}, running.put()), "Cannot launch early recovery task");
    wait_for_launcher(running.get());
    LONG result = 0;
    require(task.get()->get_LastTaskResult(&result), "Cannot inspect recovery result");
    if (result != 0) {
        throw std::runtime_error{"Early recovery launcher failed; task retained"};
    }
    scheduler.remove_task(name);
}

} // namespace

std::wstring recovery_script(const std::vector<std::wstring>& programs)
{
    std::wstring script =
        L"$ErrorActionPreference='Stop'; $session=(Get-Process -Id $PID).SessionId; foreach($path in @(";
    for (const std::wstring& program : programs) {
        script.append(&program == programs.data() ? L"" : L",").append(quote_powershell_literal(program));
    }
    return script.append(
        L")) { $name=[IO.Path]::GetFileNameWithoutExtension($path); $running=@(Get-Process -Name $name "
        L"-ErrorAction SilentlyContinue | Where-Object { $_.SessionId -eq $session -and $_.Path -eq $path "
        L"}); "
        L"if (!$running.Count -and (Test-Path -LiteralPath $path)) { Start-Process -FilePath $path "
        L"-WorkingDirectory ([IO.Path]::GetDirectoryName($path)) | Out-Null } }");
}

bool is_recovery_task(std::wstring_view name) noexcept
{
    return name.size() == 56 && name.starts_with(TASK_PREFIX) &&
           name.find_first_not_of(L"{}-0123456789ABCDEFabcdef", TASK_PREFIX.size()) ==
               std::wstring_view::npos;
}

void prepare(MSIHANDLE session)
{
    const controlled_upgrade::context context =
        controlled_upgrade::load_context(read_property(session, L"begin_controlled_upgrade"));
    const running_programs found = find_programs(context);
    if (found.processes.empty()) {
        upgrade_log(session, L"Early closure: no matching QBL applications.");
        return;
    }
    register_recovery(session, context.user_sid, found.programs);
    close_programs(session, found.processes);
}

void recover(MSIHANDLE session)
{
    const std::wstring name = read_property(session, TASK_PROPERTY);
    if (name.empty()) {
        return;
    }
    if (!is_recovery_task(name)) {
        throw std::runtime_error{"Invalid early recovery identity"};
    }
    run_recovery(name);
    upgrade_log(session, L"Early recovery completed as original desktop user.");
}

} // namespace custom_actions::early_upgrade
