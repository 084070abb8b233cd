#pragma once

#include "custom_actions/common/windows_error.h"

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <array>
#include <functional>
#include <string>

// What an action does with the installer session that called it: it writes log lines, posts messages, and
// reads and sets properties. Logging never fails an action, so the results of its calls are ignored.
//
// Field 0 of a record is a template to the installer: text in square brackets that names no property
// disappears from the line.
namespace custom_actions {

// Takes the progress lines of a long-running routine, which then need not know the session. Called on the
// thread that runs the routine.
using log_callback = std::function<void(const std::wstring&)>;

// Posts one record with `text` in field 0 as a message of `type`. Does nothing if no record can be made.
void post_record(MSIHANDLE session, INSTALLMESSAGE type, const wchar_t* text) noexcept;

// The same, but does nothing without a session (0).
void msi_message(MSIHANDLE session, INSTALLMESSAGE type, const std::wstring& text) noexcept;

// Writes one information line to the installer log. Does nothing without a session.
void msi_log(MSIHANDLE session, const std::wstring& text) noexcept;

// Writes the information line "Controlled upgrade: <text>". Tests neither the session nor the record first.
// Throws std::bad_alloc alone.
void upgrade_log(MSIHANDLE session, const std::wstring& text);

// The lines of one action: "Custom action: <label>: <text>". The label is the action's name as its lines
// spell it, which is not always the name of its export.
class action_log {
public:
    action_log(MSIHANDLE session, const wchar_t* label) noexcept : session_{session}, label_{label} {}

    // Write an information line, or an error. Both do nothing without a session; they throw std::bad_alloc
    // alone.
    void line(const std::wstring& text) const { msi_log(session_, prefixed(text)); }

    void error(const std::wstring& text) const
    {
        msi_message(session_, INSTALLMESSAGE_ERROR, prefixed(text));
    }

    // The whole line, for a message that is posted in another way.
    [[nodiscard]] std::wstring prefixed(const std::wstring& text) const
    {
        return std::wstring{L"Custom action: "} + label_ + L": " + text;
    }

    [[nodiscard]] MSIHANDLE session() const noexcept { return session_; }

private:
    MSIHANDLE session_;
    const wchar_t* label_;
};

// Returns the value of the property `name` ("CustomActionData" in a deferred action) up to its first zero
// character; an unset property is an empty string. Throws windows_error "Cannot read installer property" with
// the installer's code.
std::wstring read_property(MSIHANDLE session, const wchar_t* name);

// Returns the value of a property that is never long, read in one call into `Size` characters. Throws
// windows_error `failure` with the installer's code: ERROR_MORE_DATA if the value and its terminating zero do
// not fit.
template <DWORD Size>
std::wstring read_short_property(MSIHANDLE session, const wchar_t* name, const char* failure)
{
    std::array<wchar_t, Size> value{};
    DWORD length = Size;
    check_win32(MsiGetPropertyW(session, name, value.data(), &length), failure);
    return value.data();
}

// Throws windows_error `failure` with the installer's code.
void set_property(MSIHANDLE session, const wchar_t* name, const std::wstring& value, const char* failure);

} // namespace custom_actions
