#include "custom_actions/common/installer_session.h"

#include "custom_actions/common/scoped_handle.h"

#include <cwchar>

namespace custom_actions {

void post_record(MSIHANDLE session, INSTALLMESSAGE type, const wchar_t* text) noexcept
{
    const record_handle record{MsiCreateRecord(1)};
    if (!record) {
        return;
    }
    MsiRecordSetStringW(record.get(), 0, text);
    MsiProcessMessage(session, type, record.get());
}

void msi_message(MSIHANDLE session, INSTALLMESSAGE type, const std::wstring& text) noexcept
{
    if (session != 0) {
        post_record(session, type, text.c_str());
    }
}

void msi_log(MSIHANDLE session, const std::wstring& text) noexcept
{
    msi_message(session, INSTALLMESSAGE_INFO, text);
}

void upgrade_log(MSIHANDLE session, const std::wstring& text)
{
    const std::wstring line = L"Controlled upgrade: " + text;
    const record_handle record{MsiCreateRecord(1)};
    MsiRecordSetStringW(record.get(), 0, line.c_str());
    MsiProcessMessage(session, INSTALLMESSAGE_INFO, record.get());
}

std::wstring read_property(MSIHANDLE session, const wchar_t* name)
{
    constexpr const char* failure = "Cannot read installer property";
    wchar_t probe[] = L"";
    DWORD count = 0;
    if (const UINT probed = MsiGetPropertyW(session, name, probe, &count); probed != ERROR_MORE_DATA) {
        check_win32(probed, failure);
    }
    std::wstring value(std::size_t{count} + 1, L'\0');
    count += 1;
    check_win32(MsiGetPropertyW(session, name, value.data(), &count), failure);
    value.resize(std::wcslen(value.c_str()));
    return value;
}

void set_property(MSIHANDLE session, const wchar_t* name, const std::wstring& value, const char* failure)
{
    check_win32(MsiSetPropertyW(session, name, value.c_str()), failure);
}

} // namespace custom_actions
