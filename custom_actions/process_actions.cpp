#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/exports.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_closing.h"

#include <array>

namespace custom_actions {
namespace {

// A session id and a SID: no record is as long as the buffer.
std::wstring read_explorer_record(MSIHANDLE session)
{
    std::array<wchar_t, 256> record{};
    auto length = static_cast<DWORD>(record.size());
    if (const UINT result = MsiGetPropertyW(session, L"CustomActionData", record.data(), &length);
        result != ERROR_SUCCESS) {
        throw windows_error{"Cannot read Explorer restoration data", result};
    }
    return record.data();
}

} // namespace
} // namespace custom_actions

UINT __stdcall close_and_kill_our_processes(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_nothing, [&] { return close_our_processes(session); });
}

UINT __stdcall restore_explorer(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] {
        restart_explorer_from_record(read_explorer_record(session));
        msi_log(session, L"Explorer restoration completed for the original interactive session.");
        return UINT{ERROR_SUCCESS};
    });
}
