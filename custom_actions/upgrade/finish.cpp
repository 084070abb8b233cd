#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/text.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/best_effort.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/suite_processes.h"
#include "custom_actions/upgrade/workspace.h"

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

bool search_is_installed()
{
    return read_search_start_type().has_value();
}

// Closes again what may be running of the new version, so that the installer can put the old files back.
// Returns `failure` with what fails here behind it.
std::string prepare_for_file_rollback(MSIHANDLE session, const context& context, std::string failure)
{
    const auto attempt = [&failure](auto step) {
        if (const auto message = failure_of(step)) {
            failure.append("; rollback preparation: ").append(*message);
        }
    };
    attempt([] { upgrade_guard(true); });
    attempt([] {
        if (search_is_installed()) {
            set_search_start_type(SERVICE_DISABLED);
        }
    });
    attempt([&] { stop(session, context); });
    attempt([] {
        if (search_is_installed()) {
            stop_search_service();
        }
    });
    upgrade_log(session, L"Runtime failure: candidate shutdown attempted before MSI file rollback.");
    return failure;
}

// The upgrade is done whatever becomes of this.
void open_whats_new(MSIHANDLE session, const context& context)
{
    const auto failure = failure_of(
        [&] { run_powershell(session, context, whats_new_script(context), L"open-whats-new", 30'000); });
    if (failure) {
        upgrade_log(session, L"Could not open What's new in Settings: " + widen(*failure));
    }
}

} // namespace

void finish(MSIHANDLE session, const context& context)
{
    if (!has_marker(context, marker::PACKAGES_VERIFIED)) {
        throw std::runtime_error{"Package verification was not completed"};
    }
    const auto failure = failure_of([&] {
        restore_runtime(session, context);
        write_marker(context, marker::COMMITTED);
    });
    if (failure) {
        throw std::runtime_error{prepare_for_file_rollback(session, context, *failure)};
    }
    open_whats_new(session, context);
}

} // namespace custom_actions::controlled_upgrade
