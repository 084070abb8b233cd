#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_closing.h"

UINT __stdcall close_and_kill_our_processes(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"close_and_kill_our_processes"};
    return run_action(session, report_nothing, [&] { close_our_processes(log); });
}

UINT __stdcall restore_explorer(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] { restore_explorer_session(session); });
}
