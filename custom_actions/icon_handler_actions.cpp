#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/shell_registration/new_menu.h"

UINT __stdcall iconhandler_add_defaults_to_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_action_line{L"iconhandler_add_defaults_to_registry"}, [&] {
        register_icon_handler(session);
        return UINT{ERROR_SUCCESS};
    });
}

UINT __stdcall iconhandler_remove_registry(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_action_line{L"iconhandler_remove_registry"}, [&] {
        return remove_icon_handler(session);
    });
}

UINT __stdcall restore_built_in_new_context_menu(MSIHANDLE session)
{
    return custom_actions::run_harmless_action([&] { custom_actions::restore_new_menu(session); });
}
