#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/shell_registration/new_menu.h"

UINT __stdcall iconhandler_add_defaults_to_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"iconhandler_add_defaults_to_registry"};
    return run_action(log, [&] { register_icon_handler(log); });
}

UINT __stdcall iconhandler_remove_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"iconhandler_remove_registry"};
    return run_action(log, [&] { return remove_icon_handler(log); });
}

UINT __stdcall restore_built_in_new_context_menu(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"restore_built_in_new_context_menu"};
    return run_harmless_action([&] { restore_new_menu(log); });
}
