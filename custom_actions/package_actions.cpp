#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/packages/msix_package.h"

UINT __stdcall msix_install_package(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"msix_install_package"};
    return run_action(log, [&] { return install_msix_package(log); });
}

UINT __stdcall msix_uninstall_package(MSIHANDLE session)
{
    using namespace custom_actions;
    const action_log log{session, L"msix_uninstall_package"};
    return run_action(log, [&] { return uninstall_msix_package(log); });
}
