#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/version_check.h"
#include "custom_actions/exports.h"

UINT __stdcall check_upgrade_type(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"check_upgrade_type"};
    return run_harmless_action([&] { classify_upgrade(log); });
}

UINT __stdcall notify_restart_recommended(MSIHANDLE session)
{
    custom_actions::show_restart_notice(session);
    return ERROR_SUCCESS;
}
