#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/exports.h"
#include "custom_actions/search/search_service.h"

#include <stdexcept>
#include <string>

// What the immediate action decides travels to the deferred ones as one word, their CustomActionData.
namespace custom_actions {
namespace {

constexpr const wchar_t* RUNNING = L"running";
constexpr const wchar_t* UNCHANGED = L"unchanged";

void capture_state(MSIHANDLE session)
{
    if (!read_short_property<16>(
             session, L"RollbackDisabled", "Rollback must be enabled for Search lifetime handling")
             .empty()) {
        throw std::runtime_error{"Rollback must be enabled for Search lifetime handling"};
    }
    const bool running = search_is_running();
    for (const wchar_t* action : {L"stop_search", L"rollback_search", L"restore_search"}) {
        if (const UINT result = MsiSetPropertyW(session, action, running ? RUNNING : UNCHANGED);
            result != ERROR_SUCCESS) {
            throw windows_error{"Cannot record Search state", result};
        }
    }
    msi_log(
        session,
        running ? L"Windows Search was running; transactional stop/restore scheduled."
                : L"Windows Search stopped or absent; leave unchanged.");
}

// Whether Search was running and is this action's business.
bool search_was_running(MSIHANDLE session)
{
    const std::wstring state =
        read_short_property<32>(session, L"CustomActionData", "Cannot read Search state");
    if (state != RUNNING && state != UNCHANGED) {
        throw std::runtime_error{"Invalid Search state"};
    }
    return state == RUNNING;
}

// Stops or starts Search, by `change`, and says so with `line`; neither where it was not running.
UINT change_search(MSIHANDLE session, void (*change)(), const wchar_t* line)
{
    return run_action(session, report_error_record, [&] {
        if (search_was_running(session)) {
            change();
            msi_log(session, line);
        }
        return UINT{ERROR_SUCCESS};
    });
}

} // namespace
} // namespace custom_actions

UINT __stdcall capture_search_state(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] {
        capture_state(session);
        return UINT{ERROR_SUCCESS};
    });
}

UINT __stdcall stop_search(MSIHANDLE session)
{
    using namespace custom_actions;
    return change_search(session, stop_search_service, L"Windows Search stopped before file changes.");
}

UINT __stdcall restore_search(MSIHANDLE session)
{
    using namespace custom_actions;
    return change_search(session, start_search_service, L"Windows Search restored to running.");
}
