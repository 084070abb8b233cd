#include "custom_actions/upgrade/early_close.h"

#include "custom_actions/common/contains.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/processes/process_closing.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/process_location.h"
#include "custom_actions/upgrade/recovery_task.h"
#include "custom_actions/upgrade/scripts.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace custom_actions::early_upgrade {
namespace {

constexpr ULONGLONG GRACEFUL_LIMIT_MS = 2000;

struct running_programs {
    process_list processes;          // to be asked to close
    std::vector<std::wstring> paths; // to be started again, each once
};

// Empty if the path cannot be read, for whatever reason.
std::wstring readable_image_path(DWORD process, DWORD session)
{
    try {
        return controlled_upgrade::find_image(process, session).path;
    } catch (const std::exception&) {
        return {};
    }
}

// Nothing if the process has gone.
std::optional<std::wstring> process_user(DWORD process)
{
    const kernel_handle opened{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process)};
    if (!opened && GetLastError() == ERROR_INVALID_PARAMETER) {
        return std::nullopt;
    }
    check_bool(opened, "Cannot identify early-close process");
    return process_user_sid(opened.get(), "Cannot identify early-close user");
}

running_programs find_programs(const controlled_upgrade::context& context)
{
    running_programs found;
    for (const DWORD process : find_processes_by_image(EARLY_CLOSE_IMAGES, listing::strict)) {
        if (!runs_in_session(process, context.session_id)) {
            continue;
        }
        const std::wstring path = readable_image_path(process, context.session_id);
        if (path.empty() || process_user(process) != context.user_sid) {
            continue;
        }
        found.processes.push_back(process);
        if (is_started_again(path) && !contains(found.paths, path)) {
            found.paths.push_back(path);
        }
    }
    return found;
}

// Returns how many of the processes have exited when the limit has passed.
std::size_t wait_for_exits(const process_list& processes)
{
    const ULONGLONG deadline = GetTickCount64() + GRACEFUL_LIMIT_MS;
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

} // namespace

void prepare(MSIHANDLE session)
{
    const controlled_upgrade::context context =
        controlled_upgrade::load_context(read_property(session, L"begin_controlled_upgrade"));
    const running_programs found = find_programs(context);
    if (found.processes.empty()) {
        upgrade_log(session, L"Early closure: no matching QBL applications.");
        return;
    }
    const std::wstring task = recovery_scheduler{}.register_task(
        session, context.user_sid, controlled_upgrade::recovery_script(found.paths));
    upgrade_log(session, L"Early recovery registered: " + task);
    close_programs(session, found.processes);
}

bool is_started_again(std::wstring_view path) noexcept
{
    return !equal_ignoring_case(file_name(path), AUTO_TAGGING_PROGRAM);
}

void recover(MSIHANDLE session)
{
    const std::wstring task = read_property(session, RECOVERY_TASK_PROPERTY);
    if (task.empty()) {
        return;
    }
    if (!is_recovery_task(task)) {
        throw std::runtime_error{"Invalid early recovery identity"};
    }
    recovery_scheduler scheduler;
    scheduler.run_task(task);
    scheduler.remove_task(task);
    upgrade_log(session, L"Early recovery completed as original desktop user.");
}

} // namespace custom_actions::early_upgrade
