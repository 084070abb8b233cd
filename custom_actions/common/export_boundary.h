#pragma once

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/text.h"

#include <windows.h>
#include <msi.h>

#include <exception>
#include <string>
#include <type_traits>

// The frame around the body of every export: standard exceptions end here and become the action's return
// code. What else is reported depends on the action's family; each family has a function below.
namespace custom_actions {

// The controlled upgrade: a line of its log, then the error "Quorbel upgrade: <message>".
void report_upgrade_failure(MSIHANDLE session, const std::wstring& message);

// The early close: a line of the upgrade's log, and no error.
void report_early_close_failure(MSIHANDLE session, const std::wstring& message);

// The early recovery: likewise.
void report_early_recovery_failure(MSIHANDLE session, const std::wstring& message);

// The message itself as one error, without a log line.
void report_error_record(MSIHANDLE session, const std::wstring& message);

// Nothing: only the action's return code shows the failure.
void report_nothing(MSIHANDLE session, const std::wstring& message) noexcept;

// Runs `body`, which returns the action's code, or nothing if that is always ERROR_SUCCESS. If it throws a
// standard exception, `report` gets the session and the widened message, and the code is
// ERROR_INSTALL_FAILURE, even if there is no memory left to report with.
template <class Report, class Body>
UINT run_action(MSIHANDLE session, Report report, Body body)
{
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
            body();
            return ERROR_SUCCESS;
        } else {
            return body();
        }
    } catch (const std::exception& error) {
        try {
            report(session, widen(error.what()));
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the code says what is left to say
        }
        return ERROR_INSTALL_FAILURE;
    }
}

// The same for an action whose failure is one more line of its own.
template <class Body>
UINT run_action(const action_log& log, Body body)
{
    return run_action(
        log.session(),
        [&log](MSIHANDLE /*session*/, const std::wstring& message) { log.line(message); },
        body);
}

// Runs `body` of an action that never fails the installation: a standard exception ends the action and is not
// reported. Always returns ERROR_SUCCESS.
template <class Body>
UINT run_harmless_action(Body body)
{
    try {
        body();
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): such an action reports nothing
    }
    return ERROR_SUCCESS;
}

} // namespace custom_actions
