#pragma once

#include "custom_actions/common/text.h"

#include <windows.h>
#include <msi.h>

#include <exception>
#include <string>

// The frame around the body of every export: standard exceptions end here and become the action's return
// code. What else is reported is the family of the action, one function for each family.
namespace custom_actions {

// The controlled upgrade: its log line, then the error "Quorbel upgrade: <message>".
void report_upgrade_failure(MSIHANDLE session, const std::wstring& message);

// The early close: one line of the upgrade's log and no error.
void report_early_close_failure(MSIHANDLE session, const std::wstring& message);

// The early recovery, likewise.
void report_early_recovery_failure(MSIHANDLE session, const std::wstring& message);

// The message itself as one error, without a log line.
void report_error_record(MSIHANDLE session, const std::wstring& message);

// Nothing: the action's code is all that tells of its failure.
void report_nothing(MSIHANDLE session, const std::wstring& message) noexcept;

// One log line of the action's own, "Custom action: <label>: <message>", for the actions without another
// family.
class report_action_line {
public:
    // `label` is the action's name as its log lines spell it.
    explicit report_action_line(const wchar_t* label) noexcept : label_{label} {}

    void operator()(MSIHANDLE session, const std::wstring& message) const;

private:
    const wchar_t* label_;
};

// Runs `body`, which returns the action's code. When it throws a standard exception, `report` gets the
// session and the widened message, and the action's code is ERROR_INSTALL_FAILURE, even where there is no
// memory left to report with.
template <class Report, class Body>
UINT run_action(MSIHANDLE session, Report report, Body body)
{
    try {
        return body();
    } catch (const std::exception& error) {
        try {
            report(session, widen(error.what()));
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the code says what is left to say
        }
        return ERROR_INSTALL_FAILURE;
    }
}

// Runs `body` of an action that never fails the installation: a standard exception ends the action and
// nothing else. Always returns ERROR_SUCCESS.
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
