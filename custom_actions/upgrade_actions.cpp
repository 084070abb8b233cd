#include "custom_actions/common/export_boundary.h"
#include "custom_actions/exports.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/scheduling.h"

namespace custom_actions {
namespace {

UINT run_phase(MSIHANDLE session, void (*phase)(MSIHANDLE, const controlled_upgrade::context&))
{
    return run_action(session, report_upgrade_failure, [&] {
        phase(session, controlled_upgrade::load_context(read_property(session, L"CustomActionData")));
    });
}

} // namespace
} // namespace custom_actions

UINT __stdcall prepare_controlled_upgrade(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(session, report_upgrade_failure, [&] { controlled_upgrade::prepare(session); });
}

UINT __stdcall begin_controlled_upgrade(MSIHANDLE session)
{
    return custom_actions::run_phase(session, custom_actions::controlled_upgrade::begin);
}

UINT __stdcall install_upgrade_packages(MSIHANDLE session)
{
    return custom_actions::run_phase(session, custom_actions::controlled_upgrade::install_packages);
}

UINT __stdcall finish_controlled_upgrade(MSIHANDLE session)
{
    return custom_actions::run_phase(session, custom_actions::controlled_upgrade::finish);
}

UINT __stdcall rollback_controlled_upgrade(MSIHANDLE session)
{
    return custom_actions::run_phase(session, custom_actions::controlled_upgrade::rollback);
}
