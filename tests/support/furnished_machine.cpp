#include "tests/support/furnished_machine.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/upgrade/upgrade_packages.h"

#include <gtest/gtest.h>
#include <taskschd.h>

#include <bit>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace test_support {
namespace {

constexpr const wchar_t* PRODUCT = L"{01234567-89AB-CDEF-0123-456789ABCDEF}";
const std::wstring SUITE = PRODUCT + std::wstring{L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}"}; // component
constexpr const wchar_t* TASK = L"QBL-EarlyRecovery-{01234567-89AB-CDEF-0123-456789ABCDEF}";

} // namespace

void scheduler_stand_in::call_export(const char* name) const
{
    using entry = HRESULT STDAPICALLTYPE();
    EXPECT_EQ(std::bit_cast<entry*>(GetProcAddress(library_, name))(), S_OK) << name;
}

furnished_machine::furnished_machine()
{
    for (const wchar_t* package : custom_actions::controlled_upgrade::UPGRADE_PACKAGES) {
        std::ofstream{folder / package} << "package";
    }
}

std::wstring furnished_machine::new_upgrade_data() const
{
    const auto own = own_context();
    return custom_actions::controlled_upgrade::format_context(
        folder, own.session_id, own.user_sid, custom_actions::new_guid("no transaction", "no transaction"));
}

void furnished_machine::set_property(const std::wstring& name, const std::wstring& value) const
{
    custom_actions::set_property(session.handle(), name.c_str(), value, "a test cannot set a property");
}

void furnished_machine::furnish(const std::string& action)
{
    EXPECT_EQ(scheduler.unexpected(), L"") << "in the run before";
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"Software");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"System");
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software");
    if (action == "begin_controlled_upgrade") {
        std::filesystem::remove_all(upgrade.workspace); // throws if one of its files was left open
    }
    // Process 0 would show the caller's own modules.
    static_cast<fake_state&>(machine) = {
        .programs =
            {{0, {L"[System Process]", L"Quorbel.WindowOrganizer.Hook.dll", {}}},
             {ids.at(L"gone"), {L"Quorbel.exe", L"", {}}},
             {main.id(), {L"Quorbel.exe", L"", {}}},
             {helper.id(), {L"Quorbel.Kindra.HelperService.exe", L"", {}}},
             {explorer.id(), {L"explorer.exe", L"Quorbel.WindowOrganizer.Hook.dll", {}}}},
        .running = {0, ids.at(L"gone"), main.id(), helper.id(), explorer.id()},
        .key_paths = {{SUITE, (folder / L"Quorbel.exe").wstring()}}};
    scheduler.end_with(S_OK);
    set_properties(action);
    if (action.find("handler_") != std::string::npos || action == "restore_built_in_new_context_menu") {
        HKEY hive = action.starts_with("property") ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
        plant(origin::others, hive);
        plant(origin::suite, hive);
    } else if (action == "restore_search") {
        machine.search_states = {
            SERVICE_STOP_PENDING, SERVICE_STOP_PENDING, SERVICE_STOP_PENDING, SERVICE_STOPPED};
    } else if (action == "restore_explorer") {
        std::erase(machine.running, explorer.id());
    } else if (action == "recover_early_upgrade") {
        toy_scheduler::save_task(TASK, {{L"Path", L"none.exe"}});
        scheduler.stay_in(TASK_STATE_READY);
    } else if (
        action == "install_upgrade_packages" || action == "finish_controlled_upgrade" ||
        action == "rollback_controlled_upgrade") {
        std::wstring names = L"backup-complete shutdown-started search-running helper-running registered-0";
        names += action.starts_with("install") ? L"" : L" packages-touched packages-verified";
        leave_markers(names + L" search-start-type-2 search-delayed-start");
        machine.search_states = {SERVICE_STOPPED};
        machine.search_start = SERVICE_DISABLED;
        machine.search_delayed = false;
    }
}

// Sets the properties that the action reads, which are never those that it sets.
void furnished_machine::set_properties(const std::string& action) const
{
    const std::map<std::string, std::wstring> data{
        // for the actions that do not take the upgrade's
        {"restore_explorer", std::to_wstring(upgrade.session_id) + L'|' + upgrade.user_sid},
        {"stop_search", L"running"},
        {"restore_search", L"running"},
        {"msix_install_package", L"C:\\Suite\\Sorvane.Icon.Package.msix"},
        {"msix_uninstall_package", L"Sorvane.Icon"}};
    set_property(L"INSTALLED_APP_VERSION", L"1.5.0");
    set_property(L"ProductVersion", L"2.0.0");
    set_property(L"QblEarlyRecoveryTask", TASK);
    set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
    set_property(L"begin_controlled_upgrade", upgrade_data);
    set_property(L"RollbackDisabled", L"");
    const auto own = data.find(action);
    set_property(L"CustomActionData", own == data.end() ? upgrade_data : own->second);
}

std::set<std::wstring> furnished_machine::markers() const
{
    std::set<std::wstring> found;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator{upgrade.workspace, none}) {
        if (entry.is_regular_file() && entry.path().extension() != L".msix") {
            found.insert(entry.path().filename());
        }
    }
    return found;
}

// Changes no more than it must: deleting files is what takes longest in an emulator.
void furnished_machine::leave_markers(const std::wstring& names) const
{
    std::wistringstream stream{names};
    const std::set<std::wstring> wanted{std::istream_iterator<std::wstring, wchar_t>{stream}, {}};
    const std::filesystem::path workspace = upgrade.workspace;
    std::filesystem::create_directories(workspace / L"output");
    for (const std::wstring& marker : markers()) {
        if (!wanted.contains(marker)) {
            std::filesystem::remove(workspace / marker);
        }
    }
    for (const std::wstring& marker : wanted) {
        std::ofstream{workspace / marker} << '1';
    }
}

} // namespace test_support
