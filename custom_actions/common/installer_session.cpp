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

UINT upgrade_log(MSIHANDLE session, const std::wstring& text)
{
    const std::wstring line = L"Controlled upgrade: " + text;
    record_handle record{MsiCreateRecord(1)};
    MsiRecordSetStringW(record.get(), 0, line.c_str());
    const int posted = MsiProcessMessage(session, INSTALLMESSAGE_INFO, record.get());
    return record ? MsiCloseHandle(record.release()) : static_cast<UINT>(posted);
}

std::wstring read_property(MSIHANDLE session, const wchar_t* name)
{
    const auto require = [](UINT result) {
        if (result != ERROR_SUCCESS) {
            throw windows_error{"Cannot read installer property", result};
        }
    };

    wchar_t probe[] = L"";
    DWORD count = 0;
    const UINT probed = MsiGetPropertyW(session, name, probe, &count);
    if (probed != ERROR_MORE_DATA) {
        require(probed);
    }

    std::wstring value(std::size_t{count} + 1, L'\0');
    count += 1;
    require(MsiGetPropertyW(session, name, value.data(), &count));
    value.resize(std::wcslen(value.c_str()));
    return value;
}

} // namespace custom_actions
