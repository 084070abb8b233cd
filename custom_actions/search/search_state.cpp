#include "custom_actions/search/search_state.h"

#include "custom_actions/common/installer_session.h"
#include "custom_actions/search/search_service.h"

#include <stdexcept>
#include <string>

namespace custom_actions {
namespace {

constexpr const wchar_t* RUNNING = L"running";
constexpr const wchar_t* UNCHANGED = L"unchanged";

// In characters.
constexpr DWORD ROLLBACK_DISABLED_SIZE = 16;
constexpr DWORD STATE_SIZE = 32;

bool search_was_running(MSIHANDLE session)
{
    const std::wstring state =
        read_short_property<STATE_SIZE>(session, L"CustomActionData", "Cannot read Search state");
    if (state != RUNNING && state != UNCHANGED) {
        throw std::runtime_error{"Invalid Search state"};
    }
    return state == RUNNING;
}

} // namespace

void capture_search(MSIHANDLE session)
{
    constexpr const char* rollback_disabled = "Rollback must be enabled for Search lifetime handling";
    if (!read_short_property<ROLLBACK_DISABLED_SIZE>(session, L"RollbackDisabled", rollback_disabled)
             .empty()) {
        throw std::runtime_error{rollback_disabled};
    }
    const bool running = search_is_running();
    for (const wchar_t* action : {L"stop_search", L"rollback_search", L"restore_search"}) {
        set_property(session, action, running ? RUNNING : UNCHANGED, "Cannot record Search state");
    }
    msi_log(
        session,
        running ? L"Windows Search was running; transactional stop/restore scheduled."
                : L"Windows Search stopped or absent; leave unchanged.");
}

void stop_captured_search(MSIHANDLE session)
{
    if (search_was_running(session)) {
        stop_search_service();
        msi_log(session, L"Windows Search stopped before file changes.");
    }
}

void restore_captured_search(MSIHANDLE session)
{
    if (search_was_running(session)) {
        start_search_service();
        msi_log(session, L"Windows Search restored to running.");
    }
}

} // namespace custom_actions
