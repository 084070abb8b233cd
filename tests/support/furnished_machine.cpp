#include "tests/support/furnished_machine.h"

#include "custom_actions/common/text.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/upgrade/upgrade_packages.h"

#include <gtest/gtest.h>
#include <taskschd.h>

#include <algorithm>
#include <bit>
#include <fstream>
#include <map>
#include <string_view>

namespace test_support {
namespace {

using custom_actions::ICON_HANDLER_BACKUP_VALUE;
using custom_actions::ICON_HANDLER_CLSID;
using custom_actions::widen;

constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* PRODUCT = L"{01234567-89AB-CDEF-0123-456789ABCDEF}";
const std::wstring SUITE = PRODUCT + std::wstring{L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}"}; // component
constexpr const wchar_t* TASK = L"QBL-EarlyRecovery-{01234567-89AB-CDEF-0123-456789ABCDEF}";
constexpr const wchar_t* PROPERTY_HANDLER_BACKUP = L"OriginalPropertyHandler";
constexpr const wchar_t* DRIVE_ICON_BACKUP = L"sorvane_drive_icon_original";
constexpr const wchar_t* PLACES[]{L"", PROPERTY_HANDLER_BACKUP, ICON_HANDLER_BACKUP_VALUE, DRIVE_ICON_BACKUP};
const std::wstring HANDLERS = widen(custom_actions::PROPERTY_HANDLER_PREFIX);
const std::wstring ASSOCIATIONS = LR"(Software\Classes\SystemFileAssociations\)";
const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring ICON_SLOT = LR"(\ShellEx\IconHandler)";
const std::wstring DRIVES = LR"(Software\Classes\Applications\Explorer.exe\Drives\)";

void plant(
    const std::wstring& path, const wchar_t* name, std::wstring_view text, HKEY root = HKEY_CURRENT_USER)
{
    plant_value(root, path, name, registry_text(text));
}

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

void furnished_machine::install_at(const std::wstring& key_path)
{
    machine.key_paths = {{SUITE, key_path}};
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
    machine.become(
        {.programs =
             {{0, {L"[System Process]", L"Quorbel.WindowOrganizer.Hook.dll", {}}},
              {ids.at(L"gone"), {L"Quorbel.exe", L"", {}}},
              {main.id(), {L"Quorbel.exe", L"", {}}},
              {helper.id(), {L"Quorbel.Kindra.HelperService.exe", L"", {}}},
              {explorer.id(), {L"explorer.exe", L"Quorbel.WindowOrganizer.Hook.dll", {}}}},
         .running = {0, ids.at(L"gone"), main.id(), helper.id(), explorer.id()},
         .key_paths = {{SUITE, (folder / L"Quorbel.exe").wstring()}}});
    scheduler.end_with(S_OK);
    foreign_.clear();
    set_properties(action);
    if (action == "propertyhandler_update_registry" || action == "propertyhandler_remove_registry") {
        plant_property_handlers(action == "propertyhandler_remove_registry");
    } else if (action == "iconhandler_add_defaults_to_registry") {
        plant_icon_handlers(L"{another}");
    } else if (action == "iconhandler_remove_registry") {
        plant_icon_handlers(ICON_HANDLER_CLSID);
    } else if (action == "restore_built_in_new_context_menu") {
        plant(CLASSES + LR"(Directory\Background\ShellEx\ContextMenuHandlers\New)", L"", FOREIGN);
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
        std::set<std::wstring> markers{
            L"backup-complete",
            L"shutdown-started",
            L"search-delayed-start",
            L"search-running",
            L"helper-running",
            L"search-start-type-2",
            L"registered-0"};
        if (action != "install_upgrade_packages") {
            markers.insert({L"packages-touched", L"packages-verified"});
        }
        leave_markers(markers);
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
    session.set_property(L"INSTALLED_APP_VERSION", L"1.5.0");
    session.set_property(L"ProductVersion", L"2.0.0");
    session.set_property(L"QblEarlyRecoveryTask", TASK);
    session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
    session.set_property(L"begin_controlled_upgrade", upgrade_data);
    session.set_property(L"RollbackDisabled", L"");
    const auto own = data.find(action);
    session.set_property(L"CustomActionData", own == data.end() ? upgrade_data : own->second);
}

// Plants another vendor's handler or icon.
void furnished_machine::plant_foreign(const std::wstring& path, const wchar_t* name, HKEY root)
{
    plant(path, name, FOREIGN, root);
    foreign_.emplace_back(root, path);
}

// ".jpeg" has lists. If `registered` it is the only type with our handler, otherwise the only one without.
void furnished_machine::plant_property_handlers(bool registered)
{
    const std::wstring ours = widen(custom_actions::PROPERTY_HANDLER_CLSID);
    for (const std::string_view type : custom_actions::PROPERTY_HANDLER_EXTENSIONS) {
        if ((type == ".jpeg") == registered) {
            plant(HANDLERS + widen(type), L"", ours, HKEY_LOCAL_MACHINE);
        }
    }
    const std::wstring lists = ASSOCIATIONS + L".jpeg";
    plant(lists, L"FullDetails", widen(custom_actions::FULL_DETAILS_LIST), HKEY_LOCAL_MACHINE);
    plant(lists, L"InfoTip", widen(custom_actions::INFOTIP_LIST), HKEY_LOCAL_MACHINE);
    plant_foreign(HANDLERS + L".png", L"", HKEY_LOCAL_MACHINE);
    plant_foreign(HANDLERS + L".tif", L"", HKEY_LOCAL_MACHINE);
    plant_foreign(HANDLERS + L".jpg", PROPERTY_HANDLER_BACKUP, HKEY_LOCAL_MACHINE);
    plant(HANDLERS + L".jpg", L"", registered ? ours : L"{another}", HKEY_LOCAL_MACHINE);
}

// And drive icons, which the removal restores too.
void furnished_machine::plant_icon_handlers(const wchar_t* handler)
{
    const std::wstring ini = ASSOCIATIONS + L".ini" + ICON_SLOT;
    plant(ini, L"", handler);
    plant_foreign(ini, ICON_HANDLER_BACKUP_VALUE);
    plant(CLASSES + L".ini", L"", L"toyfile");
    plant(CLASSES + L".ico\\OpenWithProgids", L"otherfile", L"");
    plant_foreign(CLASSES + L"otherfile" + ICON_SLOT, L"");
    const std::wstring type = ASSOCIATIONS + L".ico";
    plant(type + ICON_SLOT, L"", ICON_HANDLER_CLSID);
    plant(type + L"\\ShellEx\\" + custom_actions::THUMBNAIL_HANDLER_SLOT, L"", ICON_HANDLER_CLSID);
    plant_number(HKEY_CURRENT_USER, type, custom_actions::TREATMENT_MARKER_VALUE, 1);
    const std::wstring drive_c = DRIVES + L"C\\DefaultIcon";
    for (const std::wstring& drive : {drive_c, DRIVES + L"D\\DefaultIcon"}) {
        plant(drive, L"", L"ours.ico");
        plant(drive, L"sorvane_drive_icon_applied", L"ours.ico");
    }
    plant_number(HKEY_CURRENT_USER, drive_c, L"sorvane_drive_icon_had_original", 1);
    plant_foreign(drive_c, DRIVE_ICON_BACKUP);
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
void furnished_machine::leave_markers(const std::set<std::wstring>& wanted) const
{
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

std::wstring furnished_machine::lost() const
{
    std::wstring paths;
    const auto& failed = sweep.failed_keys();
    for (const auto& [root, path] : foreign_) {
        const auto has_it = [&](const wchar_t* name) {
            return planted_value(root, path, name) == registry_text(FOREIGN);
        };
        if (std::ranges::none_of(PLACES, has_it)) {
            paths.append(L"(loses ").append(path).append(L")");
            EXPECT_TRUE(std::ranges::any_of(
                failed, [&](const std::wstring& key) { return key.ends_with(L'\\' + path); }))
                << "lost without a fault of its own: " << testing::PrintToString(path)
                << testing::PrintToString(failed);
        }
    }
    return paths;
}

} // namespace test_support
