#include "custom_actions/upgrade/suite_processes.h"

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/inspection_identity.h"
#include "custom_actions/processes/process_closing.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/upgrade/process_location.h"

#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr DWORD FIRST_POLITE_LIMIT_MS = 5000;
constexpr DWORD SECOND_POLITE_LIMIT_MS = 1000;
constexpr DWORD TERMINATION_LIMIT_MS = 5000;

bool process_has_gone(DWORD process) noexcept
{
    const kernel_handle opened{OpenProcess(SYNCHRONIZE, FALSE, process)};
    return opened ? WaitForSingleObject(opened.get(), 0) == WAIT_OBJECT_0
                  : GetLastError() == ERROR_INVALID_PARAMETER;
}

// Answers a question about a process. One that has gone meanwhile is not ours, whatever the question threw.
template <class Question>
bool holds_for(DWORD process, Question question)
{
    try {
        return question();
    } catch (const std::exception&) {
        if (process_has_gone(process)) {
            return false;
        }
        throw;
    }
}

bool host_has_our_modules(DWORD process, const context& context)
{
    const host_owner_impersonation owner{process, context.session_id};
    return process_has_module(process, our_shell_modules, listing::strict);
}

// False if the process has gone.
bool runs_in_upgraded_session(DWORD process, const context& context)
{
    DWORD session = 0;
    if (!ProcessIdToSessionId(process, &session)) {
        if (GetLastError() == ERROR_INVALID_PARAMETER) {
            return false;
        }
        session = host_owner_impersonation{process, context.session_id}.session();
    }
    if (session != context.session_id) {
        throw std::runtime_error{"QBL is running in another session; close it there before upgrading"};
    }
    return true;
}

// Leaves out what has gone.
std::vector<kernel_handle> open_processes(const process_list& processes, const context& context)
{
    std::vector<kernel_handle> opened;
    opened.reserve(processes.size());
    for (const DWORD process : processes) {
        kernel_handle handle =
            open_process_as_host_owner(SYNCHRONIZE | PROCESS_TERMINATE, process, context.session_id);
        if (handle) {
            opened.push_back(std::move(handle));
        } else if (GetLastError() != ERROR_INVALID_PARAMETER) {
            throw_last_error("Cannot stop a QBL host");
        }
    }
    return opened;
}

void end_process(HANDLE process)
{
    if (WaitForSingleObject(process, 0) == WAIT_OBJECT_0) {
        return;
    }
    check_bool(
        TerminateProcess(process, 1) && WaitForSingleObject(process, TERMINATION_LIMIT_MS) == WAIT_OBJECT_0,
        "QBL host did not exit after termination");
}

// Releases the handles: an exited process stays listed while one is open.
void close_or_end(const process_list& processes, DWORD polite_limit_ms, const context& context)
{
    const std::vector<kernel_handle> opened = open_processes(processes, context);
    close_processes(processes, polite_limit_ms);
    for (const kernel_handle& process : opened) {
        end_process(process.get());
    }
}

} // namespace

process_list upgrade_processes(const context& context)
{
    process_list found = find_processes_by_image(UPGRADE_IMAGES, listing::strict);
    std::erase_if(found, [&](DWORD process) {
        return !holds_for(process, [&] { return image_in_product_directory(process, context); });
    });

    const debug_privilege_scope privilege;
    for (const DWORD process : find_processes_by_image(shell_host_images, listing::strict)) {
        if (holds_for(process, [&] { return host_has_our_modules(process, context); })) {
            found.push_back(process);
        }
    }
    std::erase_if(found, [&](DWORD process) {
        return !holds_for(process, [&] { return runs_in_upgraded_session(process, context); });
    });
    return found;
}

void stop(MSIHANDLE session, const context& context)
{
    const auto log = [session](const std::wstring& line) { upgrade_log(session, line); };
    for (const DWORD polite_limit_ms : {FIRST_POLITE_LIMIT_MS, SECOND_POLITE_LIMIT_MS}) {
        const process_list processes = upgrade_processes(context);
        log_process_group(log, L"Upgrade processes", processes);
        if (processes.empty()) {
            return;
        }
        close_or_end(processes, polite_limit_ms, context);
        if (upgrade_processes(context).empty()) {
            return;
        }
    }
    throw std::runtime_error{"QBL processes survived shutdown; refusing to replace their files"};
}

} // namespace custom_actions::controlled_upgrade
