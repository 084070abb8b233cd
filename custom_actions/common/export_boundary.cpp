#include "custom_actions/common/export_boundary.h"

namespace custom_actions {

void report_upgrade_failure(MSIHANDLE session, const std::wstring& message)
{
    upgrade_log(session, message);
    msi_message(session, INSTALLMESSAGE_ERROR, L"Quorbel upgrade: " + message);
}

void report_early_close_failure(MSIHANDLE session, const std::wstring& message)
{
    upgrade_log(session, L"Early closure failed: " + message);
}

void report_early_recovery_failure(MSIHANDLE session, const std::wstring& message)
{
    upgrade_log(session, L"Early recovery failed: " + message);
}

void report_error_record(MSIHANDLE session, const std::wstring& message)
{
    msi_message(session, INSTALLMESSAGE_ERROR, message);
}

void report_nothing(MSIHANDLE /*session*/, const std::wstring& /*message*/) noexcept {}

} // namespace custom_actions
