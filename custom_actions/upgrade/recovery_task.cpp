#include "custom_actions/upgrade/recovery_task.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/packages/powershell.h"

#include <stdexcept>

namespace custom_actions::early_upgrade {
namespace {

constexpr std::wstring_view TASK_PREFIX = L"QBL-EarlyRecovery-";
constexpr std::size_t TASK_NAME_LENGTH = 56; // characters: the prefix and a GUID with its braces
constexpr const wchar_t* EXECUTION_LIMIT = L"PT30S";
constexpr int NORMAL_PRIORITY = 5;
constexpr ULONGLONG LAUNCHER_LIMIT_MS = 15'000;
constexpr DWORD LAUNCHER_POLL_MS = 100;

// For arguments that are left out, or that say "as the caller".
constexpr VARIANT EMPTY{};

VARIANT as_variant(const com_string& text) noexcept
{
    VARIANT value{};
    value.vt = VT_BSTR;
    value.bstrVal = text.get();
    return value;
}

void set_identity(ITaskDefinition* definition, const std::wstring& user_sid)
{
    com_pointer<IPrincipal> principal;
    check_hresult(definition->get_Principal(principal.put()), "Cannot define recovery identity");
    check_hresult(principal.get()->put_UserId(make_com_string(user_sid).get()), "Cannot set recovery user");
    check_hresult(
        principal.get()->put_LogonType(TASK_LOGON_INTERACTIVE_TOKEN), "Cannot set interactive recovery");
    check_hresult(principal.get()->put_RunLevel(TASK_RUNLEVEL_LUA), "Cannot set limited recovery");
}

void set_limits(ITaskDefinition* definition)
{
    com_pointer<ITaskSettings> settings;
    check_hresult(definition->get_Settings(settings.put()), "Cannot define recovery settings");
    constexpr const char* power_failure = "Cannot configure recovery power policy";
    check_hresult(settings.get()->put_DisallowStartIfOnBatteries(VARIANT_FALSE), power_failure);
    check_hresult(settings.get()->put_StopIfGoingOnBatteries(VARIANT_FALSE), power_failure);
    check_hresult(
        settings.get()->put_ExecutionTimeLimit(make_com_string(EXECUTION_LIMIT).get()),
        "Cannot bound recovery launcher");
    // The scheduler's default is below normal, and the programs that the task starts would inherit it.
    settings.get()->put_Priority(NORMAL_PRIORITY);
}

void set_action(ITaskDefinition* definition, const std::wstring& script)
{
    com_pointer<IActionCollection> actions;
    check_hresult(definition->get_Actions(actions.put()), "Cannot define recovery action");
    com_pointer<IAction> action;
    check_hresult(actions.get()->Create(TASK_ACTION_EXEC, action.put()), "Cannot create recovery action");
    void* executable_interface = nullptr;
    check_hresult(
        action.get()->QueryInterface(IID_IExecAction, &executable_interface),
        "Cannot configure recovery executable");
    const com_pointer<IExecAction> executable{static_cast<IExecAction*>(executable_interface)};

    const std::wstring program = powershell_program(system_directory("Cannot resolve recovery executable"));
    const std::wstring arguments = powershell_arguments(script, "Cannot encode recovery");
    check_hresult(
        executable.get()->put_Path(make_com_string(program).get()), "Cannot set recovery executable");
    check_hresult(
        executable.get()->put_Arguments(make_com_string(arguments).get()), "Cannot set recovery command");
}

void wait_for_launcher(IRunningTask* running)
{
    const ULONGLONG deadline = GetTickCount64() + LAUNCHER_LIMIT_MS;
    for (;;) {
        const HRESULT refreshed = running->Refresh();
        if (refreshed == SCHED_E_TASK_NOT_RUNNING) {
            return;
        }
        check_hresult(refreshed, "Cannot refresh recovery status");
        TASK_STATE state{};
        check_hresult(running->get_State(&state), "Cannot inspect recovery status");
        if (state != TASK_STATE_QUEUED && state != TASK_STATE_RUNNING) {
            return;
        }
        if (GetTickCount64() >= deadline) {
            throw std::runtime_error{"Early recovery launcher timed out; task retained"};
        }
        Sleep(LAUNCHER_POLL_MS);
    }
}

} // namespace

bool is_recovery_task(std::wstring_view name) noexcept
{
    return name.size() == TASK_NAME_LENGTH && name.starts_with(TASK_PREFIX) &&
           name.find_first_not_of(L"{}-0123456789ABCDEFabcdef", TASK_PREFIX.size()) ==
               std::wstring_view::npos;
}

recovery_scheduler::recovery_scheduler()
{
    void* service = nullptr;
    check_hresult(
        CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_SERVER, IID_ITaskService, &service),
        "Cannot open recovery scheduler");
    service_ = com_pointer<ITaskService>{static_cast<ITaskService*>(service)};
    check_hresult(service_.get()->Connect(EMPTY, EMPTY, EMPTY, EMPTY), "Cannot connect recovery scheduler");
    check_hresult(
        service_.get()->GetFolder(make_com_string(L"\\").get(), folder_.put()),
        "Cannot open recovery task folder");
}

std::wstring
recovery_scheduler::register_task(MSIHANDLE session, const std::wstring& user_sid, const std::wstring& script)
{
    com_pointer<ITaskDefinition> definition;
    check_hresult(service_.get()->NewTask(0, definition.put()), "Cannot define early recovery");
    set_identity(definition.get(), user_sid);
    set_limits(definition.get());
    set_action(definition.get(), script);

    constexpr const char* identity_failure = "Cannot preserve early recovery identity";
    std::wstring name = std::wstring{TASK_PREFIX} + new_guid(identity_failure, identity_failure);
    set_property(session, RECOVERY_TASK_PROPERTY, name, identity_failure);
    const com_string user = make_com_string(user_sid);
    com_pointer<IRegisteredTask> registered;
    check_hresult(
        folder_.get()->RegisterTaskDefinition(
            make_com_string(name).get(),
            definition.get(),
            TASK_CREATE,
            as_variant(user),
            EMPTY,
            TASK_LOGON_INTERACTIVE_TOKEN,
            EMPTY,
            registered.put()),
        "Cannot register early recovery; applications were left running");
    return name;
}

void recovery_scheduler::run_task(const std::wstring& name)
{
    com_pointer<IRegisteredTask> task;
    check_hresult(
        folder_.get()->GetTask(make_com_string(name).get(), task.put()), "Cannot find early recovery task");
    com_pointer<IRunningTask> running;
    check_hresult(task.get()->Run(EMPTY, running.put()), "Cannot launch early recovery task");
    wait_for_launcher(running.get());
    LONG result = 0;
    check_hresult(task.get()->get_LastTaskResult(&result), "Cannot inspect recovery result");
    if (result != 0) {
        throw std::runtime_error{"Early recovery launcher failed; task retained"};
    }
}

void recovery_scheduler::remove_task(const std::wstring& name)
{
    check_hresult(
        folder_.get()->DeleteTask(make_com_string(name).get(), 0), "Cannot remove completed recovery task");
}

} // namespace custom_actions::early_upgrade
