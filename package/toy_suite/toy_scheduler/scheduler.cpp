#include "package/toy_suite/toy_scheduler/scheduler.h"

#include "package/toy_suite/toy_scheduler/com_object.h"

#include <cwchar>

namespace toy_scheduler {
namespace {

// ERROR_FILE_NOT_FOUND and ERROR_ALREADY_EXISTS as HRESULTs.
constexpr auto NO_SUCH_TASK = static_cast<HRESULT>(0x80070002);
constexpr auto TASK_EXISTS = static_cast<HRESULT>(0x800700B7);

LONG& live_objects() noexcept
{
    static LONG count = 0;
    return count;
}

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
    return is_running(task_of(self)) ? S_OK : SCHED_E_TASK_NOT_RUNNING;
}

HRESULT get_state(IRunningTask* self, TASK_STATE* state)
{
    const TASK_STATE own = is_running(task_of(self)) ? TASK_STATE_RUNNING : TASK_STATE_READY;
    *state = static_cast<TASK_STATE>(setting(L"State").value_or(own));
    return S_OK;
}

IRunningTask* make_running_task(const std::shared_ptr<task>& about)
{
    static auto methods = [] {
        table_of<IRunningTask> table{};
        table.Refresh = call<L"IRunningTask::Refresh", refresh>;
        table.get_State = call<L"IRunningTask::get_State", get_state>;
        return completed<L"IRunningTask", IRunningTask>(table);
    }();
    return make<IRunningTask>(methods, IID_IRunningTask, about);
}

void start_program(task& run)
{
    const std::wstring& path = run.values[L"Path"];
    std::wstring command_line = L'"' + path + L"\" " + run.values[L"Arguments"];
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (CreateProcessW(
            path.c_str(),
            command_line.data(),
            nullptr,
            nullptr,
            FALSE,
            CREATE_NO_WINDOW,
            nullptr,
            nullptr,
            &startup,
            &started)) {
        run.program = custom_actions::kernel_handle{started.hProcess};
        const custom_actions::kernel_handle thread{started.hThread};
    } else {
        run.start_failure = static_cast<DWORD>(HRESULT_FROM_WIN32(GetLastError()));
    }
}

HRESULT run(IRegisteredTask* self, VARIANT parameters, IRunningTask** running)
{
    expect(is_empty(parameters) && running != nullptr, L"IRegisteredTask::Run without parameters");
    if (!setting(L"State") && !setting(L"Result")) {
        start_program(task_of(self));
    }
    *running = make_running_task(object_of(self).about);
    return S_OK;
}

HRESULT get_last_result(IRegisteredTask* self, LONG* result)
{
    const task& run = task_of(self);
    DWORD own = run.start_failure;
    if (is_running(run)) {
        own = SCHED_S_TASK_RUNNING;
    } else if (run.program) {
        GetExitCodeProcess(run.program.get(), &own);
    }
    *result = static_cast<LONG>(setting(L"Result").value_or(own));
    return S_OK;
}

IRegisteredTask* make_registered_task(std::wstring name, properties values)
{
    static auto methods = [] {
        table_of<IRegisteredTask> table{};
        table.Run = call<L"IRegisteredTask::Run", run>;
        table.get_LastTaskResult = call<L"IRegisteredTask::get_LastTaskResult", get_last_result>;
        return completed<L"IRegisteredTask", IRegisteredTask>(table);
    }();
    auto about = std::make_shared<task>();
    about->name = std::move(name);
    about->values = std::move(values);
    return make<IRegisteredTask>(methods, IID_IRegisteredTask, about);
}

HRESULT create_action(IActionCollection* self, TASK_ACTION_TYPE type, IAction** action)
{
    static auto methods = [] {
        table_of<IExecAction> table{};
        table.QueryInterface = call<L"IAction::QueryInterface", query<IExecAction>>;
        table.put_Path = put<L"IExecAction::put_Path">;
        table.put_Arguments = put<L"IExecAction::put_Arguments">;
        return completed<L"IExecAction", IExecAction>(table);
    }();
    expect(type == TASK_ACTION_EXEC && action != nullptr, L"IActionCollection::Create of a program");
    // IExecAction begins with IAction's slots.
    *action = reinterpret_cast<IAction*>(make<IExecAction>(methods, IID_IExecAction, object_of(self).about));
    return S_OK;
}

// The getter of a part of the definition.
template <const IID& Kind, class Part, table_of<Part>& (*Methods)()>
HRESULT get_part(ITaskDefinition* self, Part** part)
{
    *part = make<Part>(Methods(), Kind, object_of(self).about);
    return S_OK;
}

table_of<IPrincipal>& principal_methods()
{
    static auto methods = [] {
        table_of<IPrincipal> table{};
        table.put_UserId = put<L"IPrincipal::put_UserId">;
        table.put_LogonType = put<L"IPrincipal::put_LogonType">;
        table.put_RunLevel = put<L"IPrincipal::put_RunLevel">;
        return completed<L"IPrincipal", IPrincipal>(table);
    }();
    return methods;
}

table_of<ITaskSettings>& settings_methods()
{
    static auto methods = [] {
        table_of<ITaskSettings> table{};
        table.put_DisallowStartIfOnBatteries = put<L"ITaskSettings::put_DisallowStartIfOnBatteries">;
        table.put_StopIfGoingOnBatteries = put<L"ITaskSettings::put_StopIfGoingOnBatteries">;
        table.put_ExecutionTimeLimit = put<L"ITaskSettings::put_ExecutionTimeLimit">;
        table.put_Priority = put<L"ITaskSettings::put_Priority">;
        return completed<L"ITaskSettings", ITaskSettings>(table);
    }();
    return methods;
}

table_of<IActionCollection>& collection_methods()
{
    static auto methods = [] {
        table_of<IActionCollection> table{};
        table.Create = call<L"IActionCollection::Create", create_action>;
        return completed<L"IActionCollection", IActionCollection>(table);
    }();
    return methods;
}

HRESULT new_task(ITaskService* /*self*/, DWORD flags, ITaskDefinition** definition)
{
    static auto methods = [] {
        table_of<ITaskDefinition> table{};
        table.get_Principal =
            call<L"ITaskDefinition::get_Principal", get_part<IID_IPrincipal, IPrincipal, principal_methods>>;
        table.get_Settings = call<
            L"ITaskDefinition::get_Settings",
            get_part<IID_ITaskSettings, ITaskSettings, settings_methods>>;
        table.get_Actions = call<
            L"ITaskDefinition::get_Actions",
            get_part<IID_IActionCollection, IActionCollection, collection_methods>>;
        return completed<L"ITaskDefinition", ITaskDefinition>(table);
    }();
    expect(flags == 0 && definition != nullptr, L"ITaskService::NewTask without flags");
    *definition = make<ITaskDefinition>(methods, IID_ITaskDefinition, std::make_shared<task>());
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
        flags == TASK_CREATE && V_VT(&user) == VT_BSTR && is_empty(password) && is_empty(access) &&
            definition != nullptr && registered != nullptr,
        L"ITaskFolder::RegisterTaskDefinition to create, with a user alone");
    const std::wstring name = text_of(path);
    properties values = task_of(definition).values;
    expect(values.contains(L"Path"), L"a definition with a program");
    if (load_task(name)) {
        return TASK_EXISTS;
    }
    values[L"RegisteredUser"] = text_of(V_BSTR(&user));
    values[L"RegisteredLogonType"] = text_of(logon);
    save_task(name, values);
    *registered = make_registered_task(name, std::move(values));
    return S_OK;
}

HRESULT get_task(ITaskFolder* /*self*/, BSTR path, IRegisteredTask** found)
{
    const std::wstring name = text_of(path);
    std::optional<properties> values = load_task(name);
    if (!values) {
        return NO_SUCH_TASK;
    }
    *found = make_registered_task(name, std::move(*values));
    return S_OK;
}

HRESULT remove_task(ITaskFolder* /*self*/, BSTR name, LONG flags)
{
    expect(flags == 0, L"ITaskFolder::DeleteTask without flags");
    return delete_task(text_of(name)) ? S_OK : NO_SUCH_TASK;
}

HRESULT get_folder(ITaskService* self, BSTR path, ITaskFolder** folder)
{
    static auto methods = [] {
        table_of<ITaskFolder> table{};
        table.RegisterTaskDefinition = call<L"ITaskFolder::RegisterTaskDefinition", register_definition>;
        table.GetTask = call<L"ITaskFolder::GetTask", get_task>;
        table.DeleteTask = call<L"ITaskFolder::DeleteTask", remove_task>;
        return completed<L"ITaskFolder", ITaskFolder>(table);
    }();
    expect(task_of(self).values.contains(L"Connected"), L"ITaskService::Connect before the folder");
    expect(text_of(path) == L"\\", L"ITaskService::GetFolder of the root");
    *folder = make<ITaskFolder>(methods, IID_ITaskFolder, object_of(self).about);
    return S_OK;
}

HRESULT connect(ITaskService* self, VARIANT server, VARIANT user, VARIANT domain, VARIANT password)
{
    expect(
        is_empty(server) && is_empty(user) && is_empty(domain) && is_empty(password),
        L"ITaskService::Connect to this machine, as who calls");
    task_of(self).values[L"Connected"] = L"1";
    return S_OK;
}

HRESULT create_service(IClassFactory* /*self*/, IUnknown* outer, REFIID wanted, void** made)
{
    static auto methods = [] {
        table_of<ITaskService> table{};
        table.Connect = call<L"ITaskService::Connect", connect>;
        table.GetFolder = call<L"ITaskService::GetFolder", get_folder>;
        table.NewTask = call<L"ITaskService::NewTask", new_task>;
        return completed<L"ITaskService", ITaskService>(table);
    }();
    if (outer != nullptr) {
        return CLASS_E_NOAGGREGATION;
    }
    auto* service = make<ITaskService>(methods, IID_ITaskService, std::make_shared<task>());
    const HRESULT result = query(service, wanted, made);
    release(service);
    return result;
}

} // namespace

void expect(bool fulfilled, std::wstring_view expectation)
{
    if (!fulfilled) {
        note(L"Unexpected", std::wstring{L"not "}.append(expectation));
        throw refusal{E_INVALIDARG};
    }
}

HRESULT answered(std::wstring_view name, const std::function<HRESULT()>& answer) noexcept
try {
    note(L"Calls", name);
    return must_fail(name) ? E_ACCESSDENIED : answer();
} catch (const refusal& refused) {
    return refused.code();
} catch (const std::exception&) {
    return E_FAIL;
}

HRESULT unexpected(std::wstring_view interface_name, std::size_t method) noexcept
try {
    note(L"Unexpected", std::wstring{interface_name}.append(L", method ") + std::to_wstring(method));
    return E_NOTIMPL;
} catch (const std::exception&) {
    return E_FAIL;
}

void count_object(LONG change) noexcept
{
    note_object_count(static_cast<DWORD>(InterlockedAdd(&live_objects(), change)));
}

bool objects_live() noexcept
{
    return live_objects() != 0;
}

std::wstring text_of(BSTR text)
{
    expect(text != nullptr && SysStringLen(text) == std::wcslen(text), L"a BSTR");
    return text;
}

IClassFactory* make_factory()
{
    static auto methods = [] {
        table_of<IClassFactory> table{};
        table.CreateInstance = call<L"IClassFactory::CreateInstance", create_service>;
        return completed<L"IClassFactory", IClassFactory>(table);
    }();
    return make<IClassFactory>(methods, IID_IClassFactory, std::make_shared<task>());
}

} // namespace toy_scheduler
