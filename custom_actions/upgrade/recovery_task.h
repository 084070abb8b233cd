#pragma once

#include "custom_actions/common/com.h"

#include <windows.h>
#include <msi.h>
#include <taskschd.h>

#include <string>
#include <string_view>

namespace custom_actions::early_upgrade {

// The property that holds the name of the recovery task.
inline constexpr const wchar_t* RECOVERY_TASK_PROPERTY = L"QblEarlyRecoveryTask";

// Whether a recovery task can have this name: "QBL-EarlyRecovery-" and a GUID.
bool is_recovery_task(std::wstring_view name) noexcept;

// A connection, as the caller, to the Task Scheduler of this machine and to its root folder, in which
// recovery tasks live. COM is set up for as long as the connection lasts.
class recovery_scheduler {
public:
    // Throws windows_error "Cannot open recovery scheduler", "Cannot connect recovery scheduler" or "Cannot
    // open recovery task folder".
    recovery_scheduler();

    // Registers a task that runs `script` in PowerShell, as this user when he is logged on, without elevation
    // and at normal priority, for at most 30 seconds. It has a new name, which is left in the property first.
    // Returns the name. Throws windows_error with the message of the call that failed, and std::runtime_error
    // "Cannot resolve recovery executable"; there is no task then.
    std::wstring register_task(MSIHANDLE session, const std::wstring& user_sid, const std::wstring& script);

    // Runs a task and waits up to 15 seconds for its end. Throws std::runtime_error "Early recovery launcher
    // timed out; task retained" or "Early recovery launcher failed; task retained", and windows_error "Cannot
    // find early recovery task", "Cannot launch early recovery task", "Cannot refresh recovery status",
    // "Cannot inspect recovery status" or "Cannot inspect recovery result".
    void run_task(const std::wstring& name);

    // Throws windows_error "Cannot remove completed recovery task".
    void remove_task(const std::wstring& name);

private:
    com_apartment apartment_{"Cannot open recovery scheduler"}; // first, since it must outlive the others
    com_pointer<ITaskService> service_;
    com_pointer<ITaskFolder> folder_;
};

} // namespace custom_actions::early_upgrade
