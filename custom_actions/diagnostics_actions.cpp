#include "custom_actions/common/export_boundary.h"
#include "custom_actions/diagnostics/app_control.h"
#include "custom_actions/exports.h"

UINT __stdcall log_app_control_state(MSIHANDLE session)
{
    return custom_actions::run_harmless_action([&] { custom_actions::report_app_control_state(session); });
}
