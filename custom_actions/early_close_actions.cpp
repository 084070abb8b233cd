#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/upgrade/early_close.h"

UINT __stdcall early_close_upgrade(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_early_close_failure, [&] { early_upgrade::prepare(session); });
}

UINT __stdcall recover_early_upgrade(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_early_recovery_failure, [&] { early_upgrade::recover(session); });
}
