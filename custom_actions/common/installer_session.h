#pragma once

#include "custom_actions/common/windows_error.h"

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <array>
#include <functional>
#include <string>

// What an action may do with the installer session that called it: write log lines, post messages and read
// properties. Logging never fails an action, so the results of its calls are ignored.
//
// Field 0 of a record is a template to the installer: text in square brackets that names no property
// disappears from the line.
namespace custom_actions {

// Takes the progress lines of a long-running routine, which then need not know the session. Called on the
// thread that runs the routine.
using log_callback = std::function<void(const std::wstring&)>;

// Posts one record whose field 0 is `text`, as a message of `type`; does nothing when no record can be made.
void post_record(MSIHANDLE session, INSTALLMESSAGE type, const wchar_t* text) noexcept;

// Posts `text` as one record of `type`; does nothing when there is no session (0) or no record can be made.
void msi_message(MSIHANDLE session, INSTALLMESSAGE type, const std::wstring& text) noexcept;

// Writes one information line to the installer log; does nothing without a session.
void msi_log(MSIHANDLE session, const std::wstring& text) noexcept;

// Writes the information line "Controlled upgrade: <text>". Neither the session nor the record is tested
// first. Returns what closing the record returned, or what posting it returned where no record could be made;
// throws std::bad_alloc alone.
UINT upgrade_log(MSIHANDLE session, const std::wstring& text);

// Returns the value of the property `name` ("CustomActionData" in a deferred action), up to its first zero
// character; an unset property is an empty string. Throws windows_error "Cannot read installer property" with
// the installer's code.
std::wstring read_property(MSIHANDLE session, const wchar_t* name);

// Returns the value of a property that is never long, read at once into `Size` characters. Throws
// windows_error `failure` with the installer's code, ERROR_MORE_DATA where it does not fit with its
// terminating zero.
template <DWORD Size>
std::wstring read_short_property(MSIHANDLE session, const wchar_t* name, const char* failure)
{
    std::array<wchar_t, Size> value{};
    DWORD length = Size;
    if (const UINT result = MsiGetPropertyW(session, name, value.data(), &length); result != ERROR_SUCCESS) {
        throw windows_error{failure, result};
    }
    return value.data();
}

} // namespace custom_actions
