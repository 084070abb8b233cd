#include "custom_actions/upgrade/task_scheduler.h"

namespace custom_actions::early_upgrade {
namespace {

// What these calls take for "nothing" and "the caller's own".
constexpr VARIANT EMPTY{};

VARIANT as_variant(const com_string& text) noexcept
{
    VARIANT value{};
    value.vt = VT_BSTR;
    value.bstrVal = text.get();
    return value;
}

} // namespace

task_scheduler::task_scheduler()
{
    void* service = nullptr;
    require(
        CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_SERVER, IID_ITaskService, &service),
        "Cannot open recovery scheduler");
    service_ = com_pointer<ITaskService>{static_cast<ITaskService*>(service)};
    require(service_.get()->Connect(EMPTY, EMPTY, EMPTY, EMPTY), "Cannot connect recovery scheduler");
    require(
        service_.get()->GetFolder(make_com_string(L"\\").get(), folder_.put()),
        "Cannot open recovery task folder");
}

com_pointer<ITaskDefinition> task_scheduler::new_definition()
{
    com_pointer<ITaskDefinition> definition;
    require(service_.get()->NewTask(0, definition.put()), "Cannot define early recovery");
    return definition;
}

void task_scheduler::register_task(
    const std::wstring& name, ITaskDefinition* definition, const std::wstring& user_sid)
{
    const com_string user = make_com_string(user_sid);
    com_pointer<IRegisteredTask> registered;
    require(
        folder_.get()->RegisterTaskDefinition(
            make_com_string(name).get(),
            definition,
            TASK_CREATE,
            as_variant(user),
            EMPTY,
            TASK_LOGON_INTERACTIVE_TOKEN,
            EMPTY,
            registered.put()),
        "Cannot register early recovery; applications were left running");
}

com_pointer<IRegisteredTask> task_scheduler::find_task(const std::wstring& name)
{
    com_pointer<IRegisteredTask> task;
    require(
        folder_.get()->GetTask(make_com_string(name).get(), task.put()), "Cannot find early recovery task");
    return task;
}

void task_scheduler::remove_task(const std::wstring& name)
{
    require(
        folder_.get()->DeleteTask(make_com_string(name).get(), 0), "Cannot remove completed recovery task");
}

} // namespace custom_actions::early_upgrade
