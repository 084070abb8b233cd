#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/shell_registration/property_handler.h"

// The log lines of both actions spell their names without the second underscore.

UINT __stdcall propertyhandler_update_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_action_line{L"propertyhandler_updateregistry"}, [&] {
        return register_property_handler(session);
    });
}

UINT __stdcall propertyhandler_remove_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_action_line{L"propertyhandler_removeregistry"}, [&] {
        return remove_property_handler(session);
    });
}
