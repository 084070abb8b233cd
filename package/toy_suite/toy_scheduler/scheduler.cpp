// The scheduler's objects: the service, its root folder, definitions of tasks and their parts, registered
// tasks and their runs.

#include "package/toy_suite/process.h"
#include "package/toy_suite/toy_scheduler/com_object.h"

namespace toy_scheduler {
namespace {

constexpr auto NO_SUCH_TASK = static_cast<HRESULT>(0x80070002); // ERROR_FILE_NOT_FOUND

bool is_empty(const VARIANT& value) noexcept
{
    return V_VT(&value) == VT_EMPTY;
}

bool is_running(const task& run)
{
    return setting(L"State") || (run.program && WaitForSingleObject(run.program.get(), 0) == WAIT_TIMEOUT);
}

HRESULT refresh(IRunningTask* self)
{
    return is_running(*object_of(self).about) ? S_OK : SCHED_E_TASK_NOT_RUNNING;
}

HRESULT get_state(IRunningTask* self, TASK_STATE* state)
{
    const TASK_STATE own = is_running(*object_of(self).about) ? TASK_STATE_RUNNING : TASK_STATE_READY;
    *state = static_cast<TASK_STATE>(setting(L"State").value_or(own));
    return S_OK;
}

HRESULT run(IRegisteredTask* self, VARIANT parameters, IRunningTask** running)
{
    expect(is_empty(parameters), L"IRegisteredTask::Run without parameters");
    const std::shared_ptr<task>& about = object_of(self).about;
    if (!setting(L"State") && !setting(L"Result")) {
        const properties& values = about->values;
        about->program =
            toy_suite::start_program(values.at(L"Path"), values.at(L"Arguments"), CREATE_NO_WINDOW);
        if (!about->program) {
            return HRESULT_FROM_WIN32(GetLastError());
        }
    }
    *running = make<L"IRunningTask", IID_IRunningTask, IRunningTask>(
        [](auto& methods) {
            methods.Refresh = call<L"IRunningTask::Refresh", refresh>;
            methods.get_State = call<L"IRunningTask::get_State", get_state>;
        },
        about);
    return S_OK;
}

HRESULT get_last_result(IRegisteredTask* self, LONG* result)
{
    const auto& program = object_of(self).about->program;
    DWORD own = SCHED_S_TASK_HAS_NOT_RUN;
    if (program) {
        GetExitCodeProcess(program.get(), &own);
    }
    *result = static_cast<LONG>(setting(L"Result").value_or(own));
    return S_OK;
}

IRegisteredTask* make_registered_task(properties values)
{
    auto about = std::make_shared<task>();
    about->values = std::move(values);
    return make<L"IRegisteredTask", IID_IRegisteredTask, IRegisteredTask>(
        [](auto& methods) {
            methods.Run = call<L"IRegisteredTask::Run", run>;
            methods.get_LastTaskResult = call<L"IRegisteredTask::get_LastTaskResult", get_last_result>;
        },
        about);
}

HRESULT create_action(IActionCollection* self, TASK_ACTION_TYPE type, IAction** action)
{
    expect(type == TASK_ACTION_EXEC, L"IActionCollection::Create of a program");
    auto* const program = make<L"IExecAction", IID_IExecAction, IExecAction>(
        [](auto& methods) {
            constexpr auto query_action = [](IExecAction* asked, REFIID wanted, void** found) {
                return query(&object_of(asked), wanted, found);
            };
            methods.QueryInterface = call<L"IAction::QueryInterface", query_action>;
            methods.put_Path = put<L"IExecAction::put_Path">;
            methods.put_Arguments = put<L"IExecAction::put_Arguments">;
        },
        object_of(self).about);
    *action = reinterpret_cast<IAction*>(program); // IExecAction begins with IAction's slots
    return S_OK;
}

HRESULT get_principal(ITaskDefinition* self, IPrincipal** principal)
{
    *principal = make<L"IPrincipal", IID_IPrincipal, IPrincipal>(
        [](auto& methods) {
            methods.put_UserId = put<L"IPrincipal::put_UserId">;
            methods.put_LogonType = put<L"IPrincipal::put_LogonType">;
            methods.put_RunLevel = put<L"IPrincipal::put_RunLevel">;
        },
        object_of(self).about);
    return S_OK;
}

HRESULT get_settings(ITaskDefinition* self, ITaskSettings** settings)
{
    *settings = make<L"ITaskSettings", IID_ITaskSettings, ITaskSettings>(
        [](auto& methods) {
            methods.put_DisallowStartIfOnBatteries = put<L"ITaskSettings::put_DisallowStartIfOnBatteries">;
            methods.put_StopIfGoingOnBatteries = put<L"ITaskSettings::put_StopIfGoingOnBatteries">;
            methods.put_ExecutionTimeLimit = put<L"ITaskSettings::put_ExecutionTimeLimit">;
            methods.put_Priority = put<L"ITaskSettings::put_Priority">;
        },
        object_of(self).about);
    return S_OK;
}

HRESULT get_actions(ITaskDefinition* self, IActionCollection** actions)
{
    *actions = make<L"IActionCollection", IID_IActionCollection, IActionCollection>(
        [](auto& methods) { methods.Create = call<L"IActionCollection::Create", create_action>; },
        object_of(self).about);
    return S_OK;
}

HRESULT new_task(ITaskService* /*self*/, DWORD flags, ITaskDefinition** definition)
{
    expect(flags == 0, L"ITaskService::NewTask without flags");
    *definition = make<L"ITaskDefinition", IID_ITaskDefinition, ITaskDefinition>(
        [](auto& methods) {
            methods.get_Principal = call<L"ITaskDefinition::get_Principal", get_principal>;
            methods.get_Settings = call<L"ITaskDefinition::get_Settings", get_settings>;
            methods.get_Actions = call<L"ITaskDefinition::get_Actions", get_actions>;
        },
        std::make_shared<task>());
    return S_OK;
}

HRESULT register_definition(
    ITaskFolder* /*self*/,
    BSTR path,
    ITaskDefinition* definition,
    LONG flags,
    VARIANT user,
    VARIANT password,
    TASK_LOGON_TYPE logon,
    VARIANT access,
    IRegisteredTask** registered)
{
    expect(
        flags == TASK_CREATE && V_VT(&user) == VT_BSTR && is_empty(password) && is_empty(access),
        L"ITaskFolder::RegisterTaskDefinition to create, with a user alone");
    const std::wstring name = text_of(path);
    properties values = object_of(definition).about->values;
    expect(values.contains(L"Path"), L"a definition with a program");
    expect(!load_task(name), L"a task of a new name");
    values[L"RegisteredUser"] = text_of(V_BSTR(&user));
    values[L"RegisteredLogonType"] = text_of(logon);
    save_task(name, values);
    *registered = make_registered_task(std::move(values));
    return S_OK;
}

HRESULT get_task(ITaskFolder* /*self*/, BSTR path, IRegisteredTask** found)
{
    std::optional<properties> values = load_task(text_of(path));
    if (!values) {
        return NO_SUCH_TASK;
    }
    *found = make_registered_task(std::move(*values));
    return S_OK;
}

HRESULT remove_task(ITaskFolder* /*self*/, BSTR name, LONG flags)
{
    expect(flags == 0, L"ITaskFolder::DeleteTask without flags");
    return delete_task(text_of(name)) ? S_OK : NO_SUCH_TASK;
}

HRESULT get_folder(ITaskService* self, BSTR path, ITaskFolder** folder)
{
    expect(object_of(self).about->values.contains(L"Connected"), L"ITaskService::Connect before the folder");
    expect(text_of(path) == L"\\", L"ITaskService::GetFolder of the root");
    *folder = make<L"ITaskFolder", IID_ITaskFolder, ITaskFolder>(
        [](auto& methods) {
            methods.RegisterTaskDefinition =
                call<L"ITaskFolder::RegisterTaskDefinition", register_definition>;
            methods.GetTask = call<L"ITaskFolder::GetTask", get_task>;
            methods.DeleteTask = call<L"ITaskFolder::DeleteTask", remove_task>;
        },
        object_of(self).about);
    return S_OK;
}

HRESULT connect(ITaskService* self, VARIANT server, VARIANT user, VARIANT domain, VARIANT password)
{
    expect(
        is_empty(server) && is_empty(user) && is_empty(domain) && is_empty(password),
        L"ITaskService::Connect to this machine, as who calls");
    object_of(self).about->values[L"Connected"] = L"1";
    return S_OK;
}

HRESULT create_service(IClassFactory* /*self*/, IUnknown* outer, REFIID wanted, void** made)
{
    expect(outer == nullptr, L"IClassFactory::CreateInstance without aggregation");
    object& service = object_of(make<L"ITaskService", IID_ITaskService, ITaskService>(
        [](auto& methods) {
            methods.Connect = call<L"ITaskService::Connect", connect>;
            methods.GetFolder = call<L"ITaskService::GetFolder", get_folder>;
            methods.NewTask = call<L"ITaskService::NewTask", new_task>;
        },
        std::make_shared<task>()));
    const HRESULT result = query(&service, wanted, made);
    release(&service);
    return result;
}

} // namespace

IClassFactory* make_factory()
{
    return make<L"IClassFactory", IID_IClassFactory, IClassFactory>(
        [](auto& methods) {
            methods.CreateInstance = call<L"IClassFactory::CreateInstance", create_service>;
        },
        nullptr);
}

} // namespace toy_scheduler
