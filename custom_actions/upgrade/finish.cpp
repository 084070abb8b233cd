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

#include <stdexcept>
#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr DWORD WHATS_NEW_SCRIPT_LIMIT_MS = 30'000;

// Closes what may be running of the new version, so that the installer can put the old files back. Appends
// what fails to `failures`.
void prepare_for_file_rollback(MSIHANDLE session, const context& context, std::string& failures)
{
    const auto attempt_one = [&failures](auto step) { attempt(failures, step, "; rollback preparation: "); };
    attempt_one([] { upgrade_guard(true); });
    attempt_one([] {
        if (search_is_installed()) {
            set_search_start_type(SERVICE_DISABLED);
        }
    });
    attempt_one([&] { stop(session, context); });
    attempt_one([] {
        if (search_is_installed()) {
            stop_search_service();
        }
    });
    upgrade_log(session, L"Runtime failure: candidate shutdown attempted before MSI file rollback.");
}

// The upgrade is committed whatever becomes of this.
void open_whats_new(MSIHANDLE session, const context& context)
{
    std::string failure;
    attempt(failure, [&] {
        run_powershell(
            session, context, whats_new_script(context), L"open-whats-new", WHATS_NEW_SCRIPT_LIMIT_MS);
    });
    if (!failure.empty()) {
        upgrade_log(session, L"Could not open What's new in Settings: " + widen(failure));
    }
}

} // namespace

void finish(MSIHANDLE session, const context& context)
{
    if (!has_marker(context, marker::PACKAGES_VERIFIED)) {
        throw std::runtime_error{"Package verification was not completed"};
    }
    std::string failures;
    attempt(failures, [&] {
        restore_runtime(session, context);
        write_marker(context, marker::COMMITTED);
    });
    if (!failures.empty()) {
        prepare_for_file_rollback(session, context, failures);
        throw std::runtime_error{failures};
    }
    open_whats_new(session, context);
}

} // namespace custom_actions::controlled_upgrade
