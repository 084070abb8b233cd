#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/exports.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_closing.h"

UINT __stdcall close_and_kill_our_processes(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_nothing, [&] { return close_our_processes(session); });
}

UINT __stdcall restore_explorer(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] {
        // A session id and a SID: no record is as long as the buffer.
        restart_explorer_from_record(
            read_short_property<256>(session, L"CustomActionData", "Cannot read Explorer restoration data"));
        msi_log(session, L"Explorer restoration completed for the original interactive session.");
        return UINT{ERROR_SUCCESS};
    });
}
