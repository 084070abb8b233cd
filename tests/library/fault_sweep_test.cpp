// Runs every action of the built library with its n-th call to Windows failing, once with a passing and once
// with a staying fault. The action must return one of its codes with a message that says what failed
// (fault_messages.txt), and leave nothing behind.

#include "custom_actions/common/text.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/call_sweep.h"
#include "tests/support/fake_machine.h"
#include "tests/support/faults.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/test_limit.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"

#include <gtest/gtest.h>
#include <taskschd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {
namespace {

using custom_actions::widen;

constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* PRODUCT = L"{01234567-89AB-CDEF-0123-456789ABCDEF}";
constexpr const wchar_t* SUITE_COMPONENT = L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}";
constexpr const wchar_t* TASK = L"QBL-EarlyRecovery-{01234567-89AB-CDEF-0123-456789ABCDEF}";
constexpr const wchar_t* PROPERTY_HANDLER_BACKUP = L"OriginalPropertyHandler";
constexpr const wchar_t* DRIVE_ICON_BACKUP = L"sorvane_drive_icon_original";
constexpr const wchar_t* PLACES[]{
    L"", PROPERTY_HANDLER_BACKUP, custom_actions::ICON_HANDLER_BACKUP_VALUE, DRIVE_ICON_BACKUP};
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

// The machine for the actions: the suite's programs, one without a window so that it must be killed, and a
// host of one of its libraries. Shared by all actions, since the real programs never end.
struct stage {
    stage()
    {
        machine.programs = {
            {main.id(), {L"Quorbel.exe", L""}},
            {helper.id(), {L"Quorbel.Kindra.HelperService.exe", L""}},
            {explorer.id(), {L"explorer.exe", L"Quorbel.WindowOrganizer.Hook.dll"}}};
        for (const wchar_t* package : custom_actions::controlled_upgrade::UPGRADE_PACKAGES) {
            std::ofstream{folder / package} << "package";
        }
        session.install_component(PRODUCT, SUITE_COMPONENT, (folder / L"Quorbel.exe").wstring());
    }

    // Sets the properties that the action reads, which are never those that it sets.
    void set_properties(const std::string& action) const
    {
        session.set_property(L"INSTALLED_APP_VERSION", L"1.5.0");
        session.set_property(L"ProductVersion", L"2.0.0");
        session.set_property(L"QblEarlyRecoveryTask", TASK);
        session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
        session.set_property(L"begin_controlled_upgrade", upgrade_data);
        const auto own = data.find(action);
        session.set_property(L"CustomActionData", own == data.end() ? upgrade_data : own->second);
    }

    // Resets the machine before each run: both hives empty, every program and Search running.
    void reset()
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"Software");
        RegDeleteTreeW(HKEY_CURRENT_USER, L"Software");
        machine.running = {main.id(), helper.id(), explorer.id()};
        machine.search_state = SERVICE_RUNNING;
        scheduler.clear();
        scheduler.end_with(S_OK);
        foreign.clear();
    }

    // Plants another vendor's handler or icon, which a run may lose only if fault_messages.txt says so.
    void plant_foreign(const std::wstring& path, const wchar_t* name, HKEY root = HKEY_CURRENT_USER)
    {
        plant(path, name, FOREIGN, root);
        foreign.emplace_back(root, path);
    }

    // The keys with the foreign value neither in its place nor in a backup. Fails the test if no call about
    // such a key has failed.
    [[nodiscard]] std::wstring lost() const
    {
        std::wstring paths;
        const auto& failed = sweep.failed_keys();
        for (const auto& [root, path] : foreign) {
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

    toy_process main{L"Quorbel.exe"};
    toy_process helper{L"Quorbel.Kindra.HelperService.exe", L"--window=none"};
    toy_process explorer{L"explorer.exe"};
    scheduler_stand_in scheduler; // before the sandboxes: it needs the real registry
    registry_sandbox machine_hive{HKEY_LOCAL_MACHINE};
    registry_sandbox user_hive{HKEY_CURRENT_USER};
    loaded_library library;
    test_session session{library.module()};
    fake_machine machine{library.module()};
    call_sweep sweep{library.module()};
    std::filesystem::path folder = std::filesystem::path{toy_library(L"any.dll")}.parent_path();
    std::wstring upgrade_data = new_upgrade_data(folder.wstring());
    custom_actions::controlled_upgrade::context upgrade =
        custom_actions::controlled_upgrade::load_context(upgrade_data);
    const std::map<std::string, std::wstring> data{
        // for the actions that do not take the upgrade's
        {"restore_explorer", std::to_wstring(upgrade.session_id) + L'|' + upgrade.user_sid},
        {"stop_search", L"running"},
        {"restore_search", L"running"},
        {"msix_install_package", L"C:\\Suite\\Sorvane.Icon.Package.msix"},
        {"msix_uninstall_package", L"Sorvane.Icon"}};
    std::vector<std::pair<HKEY, std::wstring>> foreign;
};

// ".jpeg" has lists. If `registered` it is the only type with our handler, otherwise the only one without.
void plant_property_handlers(stage& stage, bool registered)
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
    stage.plant_foreign(HANDLERS + L".png", L"", HKEY_LOCAL_MACHINE);
    stage.plant_foreign(HANDLERS + L".tif", L"", HKEY_LOCAL_MACHINE);
    stage.plant_foreign(HANDLERS + L".jpg", PROPERTY_HANDLER_BACKUP, HKEY_LOCAL_MACHINE);
    plant(HANDLERS + L".jpg", L"", registered ? ours : L"{another}", HKEY_LOCAL_MACHINE);
}

// And drive icons, which the removal restores too.
void plant_icon_handlers(stage& stage, const wchar_t* handler)
{
    const std::wstring ini = ASSOCIATIONS + L".ini" + ICON_SLOT;
    plant(ini, L"", handler);
    stage.plant_foreign(ini, custom_actions::ICON_HANDLER_BACKUP_VALUE);
    plant(CLASSES + L".ini", L"", L"toyfile");
    plant(CLASSES + L".ico\\OpenWithProgids", L"otherfile", L"");
    stage.plant_foreign(CLASSES + L"otherfile" + ICON_SLOT, L"");
    const std::wstring type = ASSOCIATIONS + L".ico";
    plant(type + ICON_SLOT, L"", custom_actions::ICON_HANDLER_CLSID);
    plant(
        type + L"\\ShellEx\\" + custom_actions::THUMBNAIL_HANDLER_SLOT,
        L"",
        custom_actions::ICON_HANDLER_CLSID);
    plant_number(HKEY_CURRENT_USER, type, custom_actions::TREATMENT_MARKER_VALUE, 1);
    const std::wstring drive_c = DRIVES + L"C\\DefaultIcon";
    for (const std::wstring& drive : {drive_c, DRIVES + L"D\\DefaultIcon"}) {
        plant(drive, L"", L"ours.ico");
        plant(drive, L"sorvane_drive_icon_applied", L"ours.ico");
    }
    plant_number(HKEY_CURRENT_USER, drive_c, L"sorvane_drive_icon_had_original", 1);
    stage.plant_foreign(drive_c, DRIVE_ICON_BACKUP);
}

// Creates the workspace as the earlier phases leave it.
void begin_upgrade(stage& stage)
{
    const std::filesystem::path workspace = stage.upgrade.workspace;
    std::filesystem::create_directories(workspace / L"output");
    std::istringstream markers{
        "backup-complete shutdown-started packages-touched packages-verified search-delayed-start "
        "search-running helper-running search-start-type-2 registered-0"};
    for (std::string name; markers >> name;) {
        std::ofstream{workspace / name} << '1';
    }
}

// A line of fault_messages.txt: a text, without its numbers, that an action may report if this call fails.
// "*" stands for every action and every call. A call is a function of Windows or a method of the Task
// Scheduler's objects ("ITaskService::Connect").
struct expected_text {
    std::wstring action;
    std::wstring call;
    std::wstring text;
};

std::vector<expected_text> expected_texts()
{
    std::vector<expected_text> all;
    std::wifstream list{SOURCE_DIR "/tests/library/fault_messages.txt"};
    for (expected_text line; list >> line.action >> line.call >> std::ws && std::getline(list, line.text);) {
        all.push_back(line);
    }
    return all;
}

// Set up before each run of an action that needs more than an upgrade's data.
const std::map<std::string_view, void (*)(stage&)> SCENARIOS{
    {"propertyhandler_update_registry", [](stage& stage) { plant_property_handlers(stage, false); }},
    {"propertyhandler_remove_registry", [](stage& stage) { plant_property_handlers(stage, true); }},
    {"iconhandler_add_defaults_to_registry", [](stage& stage) { plant_icon_handlers(stage, L"{another}"); }},
    {"iconhandler_remove_registry",
     [](stage& stage) { plant_icon_handlers(stage, custom_actions::ICON_HANDLER_CLSID); }},
    {"restore_built_in_new_context_menu",
     [](stage& /*stage*/) {
         plant(CLASSES + LR"(Directory\Background\ShellEx\ContextMenuHandlers\New)", L"", FOREIGN);
     }},
    {"restore_explorer", [](stage& stage) { stage.machine.running.erase(stage.explorer.id()); }},
    {"restore_search", [](stage& stage) { stage.machine.search_state = SERVICE_STOP_PENDING; }},
    {"install_upgrade_packages", begin_upgrade},
    {"finish_controlled_upgrade", begin_upgrade},
    {"rollback_controlled_upgrade", begin_upgrade},
    {"recover_early_upgrade",
     [](stage& stage) {
         stage.scheduler.register_task(TASK);
         stage.scheduler.stay_in(TASK_STATE_READY);
     }},
};

class FaultSweep : public testing::TestWithParam<std::string> {
protected:
    static void TearDownTestSuite() { stage_.reset(); }

    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "starts the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        if (!stage_) {
            stage_.emplace();
        }
        stage_->set_properties(GetParam());
    }

    // What remains of the text without the texts expected if this call fails.
    std::wstring unexpected(const std::wstring& failing, std::wstring text) const
    {
        for (const auto& [action, call, known] : expected_) {
            std::size_t at = 0;
            while ((action == L"*" || (action == action_ && call == failing)) &&
                   (at = text.find(known)) != std::wstring::npos) {
                text.erase(at, known.size());
            }
        }
        std::erase_if(text, [](wchar_t letter) {
            return std::wstring_view{L"0123456789; "}.find(letter) != std::wstring_view::npos;
        });
        return text;
    }

    // Calls the action and checks what it leaves. Returns how many more handles are open than before.
    long run(std::size_t nth = 0, call_sweep::fault fault = call_sweep::fault::passing)
    {
        stage_->reset();
        if (const auto scenario = SCENARIOS.find(GetParam()); scenario != SCENARIOS.end()) {
            scenario->second(*stage_);
        }
        stage_->scheduler.fail(failing_object_call_);
        const DWORD handles = open_handles();
        const auto& messages = stage_->session.messages();
        const std::size_t posted = messages.size();
        stage_->sweep.plan(nth, fault);
        const UINT code = stage_->library.call(GetParam().c_str(), stage_->session.handle());
        const auto& calls = stage_->sweep.calls();
        const std::wstring failing =
            nth != 0 && nth <= calls.size() ? widen(calls[nth - 1]) : failing_object_call_;
        const bool of_package = code == ERROR_INVALID_PARAMETER && GetParam().starts_with("msix_");
        EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_INSTALL_FAILURE || of_package) << code;
        const bool silent = messages.size() == posted;
        std::wstring outcome = silent ? L"(is silent)" : messages.back().text;
        if (code == ERROR_SUCCESS && (silent || messages.back().type != INSTALLMESSAGE_ERROR)) {
            outcome = L"(succeeds)";
        }
        EXPECT_EQ(unexpected(failing, outcome + stage_->lost()), L"");
        EXPECT_EQ(stage_->session.open_records(), 0U);
        EXPECT_EQ(stage_->scheduler.objects(), 0U);
        EXPECT_EQ(stage_->scheduler.unexpected(), L"");
        EXPECT_FALSE(thread_is_impersonating());
        RevertToSelf();
        const auto left_open = static_cast<long>(open_handles() - handles);
        std::filesystem::remove_all(stage_->upgrade.workspace); // throws if one of its files is left open
        faults_ += stage_->sweep.failed();
        return left_open;
    }

    void inject(std::size_t nth)
    {
        for (const auto fault : {call_sweep::fault::passing, call_sweep::fault::staying}) {
            const char* const how = fault == call_sweep::fault::passing ? ", passing" : ", staying";
            SCOPED_TRACE(calls_[nth - 1] + ", call " + std::to_string(nth) + how);
            // The system may open a handle on first use and keep it; one that a second run leaves is a leak.
            if (run(nth, fault) > 0) {
                EXPECT_LE(run(nth, fault), 0) << "handles left open";
            }
        }
    }

    void inject_into_objects()
    {
        for (const auto& [action, call, text] : expected_) {
            if (action == action_ && call.find(L"::") != std::wstring::npos) {
                SCOPED_TRACE(testing::PrintToString(call));
                failing_object_call_ = call;
                run();
            }
        }
    }

    inline static std::optional<stage> stage_;
    const std::wstring action_ = widen(GetParam());
    const std::vector<expected_text> expected_ = expected_texts();
    std::wstring failing_object_call_ = L"nothing";
    std::vector<std::string> calls_;
    std::size_t faults_ = 0;
};

TEST_P(FaultSweep, returns_one_of_its_codes_and_leaves_nothing_behind)
{
    testing::internal::CaptureStdout(); // the action prints a thousand times
    run();                              // the system opens handles on first use
    EXPECT_EQ(run(), 0) << "handles left open without a fault";
    calls_ = stage_->sweep.calls();
    allow_test(std::chrono::minutes{5});
    for (std::size_t nth = 1; nth <= calls_.size() && !HasFailure(); ++nth) {
        inject(nth);
    }
    EXPECT_GE(faults_, 2U);
    inject_into_objects();
    if (const std::string output = testing::internal::GetCapturedStdout(); HasFailure()) {
        std::cout << output;
    }
    std::cout << GetParam() << ": " << calls_.size() << " calls, " << faults_ << " faults\n";
}

INSTANTIATE_TEST_SUITE_P(
    Exports,
    FaultSweep,
    testing::ValuesIn(pe_image{loaded_library{}.module()}.exported_names()),
    [](const auto& tested) { return tested.param; });

} // namespace
} // namespace test_support
