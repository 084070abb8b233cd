#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/shell_registration/property_handler.h"

// The labels of both actions lack the second underscore.

UINT __stdcall propertyhandler_update_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"propertyhandler_updateregistry"};
    return run_action(log, [&] { return register_property_handler(log); });
}

UINT __stdcall propertyhandler_remove_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"propertyhandler_removeregistry"};
    return run_action(log, [&] { return remove_property_handler(log); });
}
