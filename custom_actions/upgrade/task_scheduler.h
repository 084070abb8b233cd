#pragma once

#include "custom_actions/common/com.h"

#include <windows.h>
#include <taskschd.h>

#include <string>

namespace custom_actions::early_upgrade {

// The connection to Windows' Task Scheduler on this machine, as the caller, and its tasks outside of any
// folder. COM is there for as long as the connection is.
class task_scheduler {
public:
    // Throws windows_error "Cannot open recovery scheduler", "Cannot connect recovery scheduler" or "Cannot
    // open recovery task folder".
    task_scheduler();

    // A task that is being written. Throws windows_error "Cannot define early recovery".
    com_pointer<ITaskDefinition> new_definition();

    // Registers a task under a name that none has yet, for this user where he is logged on. Throws
    // windows_error "Cannot register early recovery; applications were left running".
    void register_task(const std::wstring& name, ITaskDefinition* definition, const std::wstring& user_sid);

    // Throws windows_error "Cannot find early recovery task".
    com_pointer<IRegisteredTask> find_task(const std::wstring& name);

    // Throws windows_error "Cannot remove completed recovery task".
    void remove_task(const std::wstring& name);

private:
    com_apartment apartment_{
        "Cannot open recovery scheduler"}; // first: the others are released before it ends
    com_pointer<ITaskService> service_;
    com_pointer<ITaskFolder> folder_;
};

} // namespace custom_actions::early_upgrade
