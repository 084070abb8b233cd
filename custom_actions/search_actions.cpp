#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/search/search_state.h"

UINT __stdcall capture_search_state(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] { capture_search(session); });
}

UINT __stdcall stop_search(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] { stop_captured_search(session); });
}

UINT __stdcall restore_search(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_error_record, [&] { restore_captured_search(session); });
}
