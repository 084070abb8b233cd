// Every action of the built library with the n-th of its calls to Windows failing: once with the fault
// passing and once with it staying. It has to return one of its codes with a message that says what failed
// (fault_messages.txt), and to leave nothing behind. SWEEP tells how many seconds an action is swept (5), or
// "full" for every call.

#include "custom_actions/processes/explorer.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/call_sweep.h"
#include "tests/support/faults.h"
#include "tests/support/played_machine.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

namespace marker = custom_actions::controlled_upgrade::marker;

constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* PRODUCT = L"{01234567-89AB-CDEF-0123-456789ABCDEF}";
constexpr const wchar_t* SUITE_COMPONENT = L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}";
constexpr const wchar_t* TASK = L"QBL-EarlyRecovery-{01234567-89AB-CDEF-0123-456789ABCDEF}";
constexpr const wchar_t* PROPERTY_HANDLER_BACKUP = L"OriginalPropertyHandler";
constexpr const wchar_t* DRIVE_ICON_BACKUP = L"sorvane_drive_icon_original";
const std::wstring HANDLERS =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\)";
const std::wstring ASSOCIATIONS = LR"(Software\Classes\SystemFileAssociations\)";
const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring NEW_MENU = LR"(Software\Classes\Directory\Background\ShellEx\ContextMenuHandlers\New)";
const std::wstring ICON_SLOT = LR"(\ShellEx\IconHandler)";
const std::wstring DRIVES = LR"(Software\Classes\Applications\Explorer.exe\Drives\)";

// Programs of the suite and hosts of its libraries.
constexpr played_machine::program PROGRAMS[]{
    {.name = L"Quorbel.exe", .library = L"", .polite = true},
    {.name = L"Quorbel.Comment.exe", .library = L""},
    {.name = L"Quorbel.Kindra.HelperService.exe", .library = L""},
    {.name = L"dllhost.exe", .library = L"Quorbel.WindowOrganizer.Hook.dll"},
    {.name = L"explorer.exe", .library = L"Sorvane.Icon.ShellExtension.dll"},
};

void plant(HKEY root, const std::wstring& path, const wchar_t* name, std::wstring_view text)
{
    plant_value(root, path, name, registry_text(text));
}

// The machine on which the actions are called.
struct stage {
    explicit stage(const std::deque<toy_process>& programs)
    {
        for (std::size_t index = 0; index != programs.size(); ++index) {
            machine.list(programs[index].id(), PROGRAMS[index]);
        }
        for (const wchar_t* package : custom_actions::controlled_upgrade::UPGRADE_PACKAGES) {
            std::ofstream{folder / package} << "package";
        }
        session.install_component(PRODUCT, SUITE_COMPONENT, (folder / L"Quorbel.exe").wstring());
    }

    ~stage() { forget_upgrade(); }

    stage(const stage&) = delete;
    stage& operator=(const stage&) = delete;

    // False where something in its folder is held open.
    bool forget_upgrade() const
    {
        std::error_code error;
        std::filesystem::remove_all(upgrade.workspace, error);
        return !error;
    }

    // As it is before each run: both hives empty, every program and Search running.
    void begin_anew()
    {
        for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
            RegDeleteTreeW(root, L"Software");
        }
        machine.begin_anew();
        foreign.clear();
        set_data(upgrade_data);
        session.set_property(L"INSTALLED_APP_VERSION", L"1.5.0");
        session.set_property(L"ProductVersion", L"2.0.0");
        session.set_property(L"QblEarlyRecoveryTask", TASK);
        session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
        session.set_property(L"begin_controlled_upgrade", upgrade_data);
    }

    void set_data(const std::wstring& data) { session.set_property(L"CustomActionData", data); }

    // Plants a handler or an icon of somebody else's, which no run may lose but one where this function
    // fails.
    void
    plant_foreign(HKEY root, const std::wstring& path, const wchar_t* name, std::string_view but_where = "")
    {
        plant(root, path, name, FOREIGN);
        foreign.push_back({.root = root, .path = path, .but_where = but_where});
    }

    // Whose key has it neither in its place nor in a backup.
    [[nodiscard]] std::string lost(std::string_view failing) const
    {
        std::string paths;
        for (const foreign_handler& handler : foreign) {
            const auto has_it = [&](const wchar_t* name) {
                return planted_value(handler.root, handler.path, name) == registry_text(FOREIGN);
            };
            const auto places = {
                L"", PROPERTY_HANDLER_BACKUP, custom_actions::ICON_HANDLER_BACKUP_VALUE, DRIVE_ICON_BACKUP};
            if (failing != handler.but_where && std::ranges::none_of(places, has_it)) {
                paths += std::filesystem::path{handler.path}.string() + ' ';
            }
        }
        return paths;
    }

    struct foreign_handler {
        HKEY root;
        std::wstring path;
        std::string_view but_where;
    };

    scheduler_stand_in scheduler; // before the sandboxes, since it is the machine's
    registry_sandbox machine_hive{HKEY_LOCAL_MACHINE};
    registry_sandbox user_hive{HKEY_CURRENT_USER};
    loaded_library library;
    scripted_session session{library.module()};
    played_machine machine{library.module()};
    call_sweep sweep{library.module()};
    std::filesystem::path folder = std::filesystem::path{toy_library(L"any.dll")}.parent_path();
    std::wstring upgrade_data = new_upgrade_data(folder.wstring());
    custom_actions::controlled_upgrade::context upgrade =
        custom_actions::controlled_upgrade::load_context(upgrade_data);
    std::vector<foreign_handler> foreign;
};

void plant_property_handlers(stage& stage, bool registered)
{
    const std::wstring ours{
        custom_actions::PROPERTY_HANDLER_CLSID.begin(), custom_actions::PROPERTY_HANDLER_CLSID.end()};
    for (const std::string_view type : custom_actions::PROPERTY_HANDLER_EXTENSIONS) {
        // Enough are left for a first registration, or there are enough to remove.
        if (registered ? type.starts_with(".x") : type < ".d" || type > ".l") {
            plant(HKEY_LOCAL_MACHINE, HANDLERS + std::wstring{type.begin(), type.end()}, L"", ours);
        }
    }
    for (const wchar_t* type : {L".jpg", L".xls", L".xml"}) {
        for (const auto& [name, list] :
             {std::pair{L"FullDetails", custom_actions::FULL_DETAILS_LIST},
              std::pair{L"PreviewDetails", custom_actions::PREVIEW_DETAILS_LIST},
              std::pair{L"InfoTip", custom_actions::INFOTIP_LIST}}) {
            plant(HKEY_LOCAL_MACHINE, ASSOCIATIONS + type, name, std::wstring{list.begin(), list.end()});
        }
    }
    stage.plant_foreign(HKEY_LOCAL_MACHINE, HANDLERS + L".png", L"");
    // A backup that cannot be written holds no registration up.
    stage.plant_foreign(HKEY_LOCAL_MACHINE, HANDLERS + L".tif", L"", registered ? "" : "RegSetValueExA");
    // A key that cannot be opened is deleted at removal, where that can be done.
    stage.plant_foreign(
        HKEY_LOCAL_MACHINE, HANDLERS + L".jpg", PROPERTY_HANDLER_BACKUP, registered ? "RegOpenKeyExA" : "");
    plant(HKEY_LOCAL_MACHINE, HANDLERS + L".jpg", L"", registered ? ours : L"{another}");
}

// With what else the removal looks at.
void plant_icon_handlers(stage& stage, const wchar_t* handler)
{
    const auto plant_text = [](const std::wstring& path, const wchar_t* name, const wchar_t* text) {
        plant(HKEY_CURRENT_USER, path, name, text);
    };
    const auto plant_one = [](const std::wstring& path, const wchar_t* name) {
        plant_value(HKEY_CURRENT_USER, path, name, {"\1\0\0\0", 4}, REG_DWORD);
    };
    for (const std::wstring& path : {ASSOCIATIONS + L".ini" + ICON_SLOT, CLASSES + L"toyfile" + ICON_SLOT}) {
        plant_text(path, L"", handler);
        stage.plant_foreign(HKEY_CURRENT_USER, path, custom_actions::ICON_HANDLER_BACKUP_VALUE);
    }
    plant_text(CLASSES + L".ini", L"", L"toyfile");
    plant_text(CLASSES + L".ico\\OpenWithProgids", L"otherfile", L"");
    for (const std::wstring& slot :
         {ICON_SLOT, LR"(\ShellEx\)" + std::wstring{custom_actions::THUMBNAIL_HANDLER_SLOT}}) {
        plant_text(ASSOCIATIONS + L".ico" + slot, L"", custom_actions::ICON_HANDLER_CLSID);
    }
    plant_one(ASSOCIATIONS + L".ico", custom_actions::TREATMENT_MARKER_VALUE);
    for (const std::wstring& drive : {DRIVES + L"C\\DefaultIcon", DRIVES + L"D\\DefaultIcon"}) {
        plant_text(drive, L"", L"ours.ico");
        plant_text(drive, L"sorvane_drive_icon_applied", L"ours.ico");
    }
    // Where it cannot be told whether a drive had an icon, it had none.
    const std::wstring drive_c = DRIVES + L"C\\DefaultIcon";
    plant_one(drive_c, L"sorvane_drive_icon_had_original");
    stage.plant_foreign(HKEY_CURRENT_USER, drive_c, DRIVE_ICON_BACKUP, "RegQueryValueExW");
}

// The upgrade's folder as its earlier phases left it.
void begin_upgrade(stage& stage)
{
    const std::filesystem::path workspace = stage.upgrade.workspace;
    std::filesystem::create_directories(workspace / L"output");
    for (const wchar_t* name :
         {marker::BACKUP_COMPLETE,
          marker::SHUTDOWN_STARTED,
          marker::PACKAGES_TOUCHED,
          marker::PACKAGES_VERIFIED,
          marker::SEARCH_DELAYED_START,
          marker::SEARCH_RUNNING,
          marker::HELPER_RUNNING,
          L"search-start-type-2",
          L"registered-0"}) {
        std::ofstream{workspace / name} << '1';
    }
}

// What there is in the message beside the texts that an action may fail with where this function does:
// fault_messages.txt has them by function, without their numbers, and "*" before what may stand in front.
std::wstring unexpected(const std::wstring& failing, std::wstring message)
{
    static const auto expected = [] {
        std::multimap<std::wstring, std::wstring> all;
        std::wifstream list{SOURCE_DIR "/tests/library/fault_messages.txt"};
        for (std::wstring function, text; list >> function >> std::ws && std::getline(list, text);) {
            all.emplace(function, text);
        }
        return all;
    }();
    std::erase_if(message, [](wchar_t letter) { return std::iswdigit(letter) != 0; });
    for (const auto& [function, text] : expected) {
        for (auto at = message.find(text);
             at != std::wstring::npos && (function == failing || function == L"*");
             at = message.find(text)) {
            message.erase(at, text.size());
        }
    }
    std::erase_if(message, [](wchar_t letter) { return letter == L' ' || letter == L';'; });
    return message;
}

void nothing(stage& /*stage*/) {}

// What is done before each run of an action. Whose CustomActionData is not set here has the upgrade's.
const std::map<std::string_view, void (*)(stage&)> SCENARIOS{
    {"check_upgrade_type", nothing},
    {"notify_restart_recommended", nothing},
    {"propertyhandler_update_registry", [](stage& stage) { plant_property_handlers(stage, false); }},
    {"propertyhandler_remove_registry", [](stage& stage) { plant_property_handlers(stage, true); }},
    {"iconhandler_add_defaults_to_registry", [](stage& stage) { plant_icon_handlers(stage, L"{another}"); }},
    {"iconhandler_remove_registry",
     [](stage& stage) { plant_icon_handlers(stage, custom_actions::ICON_HANDLER_CLSID); }},
    {"restore_built_in_new_context_menu",
     [](stage& /*stage*/) { plant(HKEY_CURRENT_USER, NEW_MENU, L"", FOREIGN); }},
    {"log_app_control_state", nothing},
    {"close_and_kill_our_processes", nothing},
    {"restore_explorer",
     [](stage& stage) {
         stage.machine.begin_anew(SERVICE_RUNNING, L"explorer.exe");
         stage.set_data(custom_actions::explorer_record(stage.upgrade.session_id, stage.upgrade.user_sid));
     }},
    {"capture_search_state", nothing},
    {"stop_search", [](stage& stage) { stage.set_data(L"running"); }},
    {"restore_search",
     [](stage& stage) {
         stage.machine.begin_anew(SERVICE_STOP_PENDING);
         stage.set_data(L"running");
     }},
    {"msix_install_package", [](stage& stage) { stage.set_data(L"C:\\Suite\\Sorvane.Icon.Package.msix"); }},
    {"msix_uninstall_package", [](stage& stage) { stage.set_data(L"Sorvane.Icon"); }},
    {"prepare_controlled_upgrade", nothing},
    {"begin_controlled_upgrade", nothing},
    {"install_upgrade_packages", begin_upgrade},
    {"finish_controlled_upgrade", begin_upgrade},
    {"rollback_controlled_upgrade", begin_upgrade},
    {"early_close_upgrade", nothing},
    {"recover_early_upgrade",
     [](stage& stage) {
         stage.scheduler.register_task(TASK);
         stage.scheduler.end_with(S_OK);
     }},
};

class FaultSweep : public testing::TestWithParam<std::string> {
protected:
    static void TearDownTestSuite() { programs_.clear(); }

    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP()
                << "starts programs with the suite's names: set DISPOSABLE_MACHINE where that may be";
        }
        while (programs_.size() != std::size(PROGRAMS)) {
            programs_.emplace_back(std::wstring{PROGRAMS[programs_.size()].name});
        }
        stage_.emplace(programs_);
        ASSERT_TRUE(SCENARIOS.contains(GetParam())) << "an action without a scenario";
    }

    // Calls the action and looks at what it leaves. Returns how many handles more are open than before.
    long run(std::size_t nth, call_sweep::fault fault)
    {
        stage_->begin_anew();
        SCENARIOS.at(GetParam())(*stage_);
        const auto handles = static_cast<long>(open_handles());
        const auto& messages = stage_->session.messages();
        const std::size_t posted = messages.size();
        UINT code = 0;
        stage_->sweep.plan(nth, fault);
        EXPECT_NO_THROW(code = stage_->library.call(GetParam().c_str(), stage_->session.handle()));
        const auto& calls = stage_->sweep.calls();
        const std::string failing = nth != 0 && nth <= calls.size() ? calls[nth - 1].function : "nothing";
        fault_ = " after " + failing + ", call " + std::to_string(nth) +
                 (fault == call_sweep::fault::passing ? ", passing" : ", staying");

        const bool of_package = code == ERROR_INVALID_PARAMETER && GetParam().starts_with("msix_");
        EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_INSTALL_FAILURE || of_package) << code << fault_;
        const std::wstring told = messages.size() == posted ? L"(is silent)" : messages.back().text;
        const bool fails = code != ERROR_SUCCESS ||
                           (messages.size() != posted && messages.back().type == INSTALLMESSAGE_ERROR);
        EXPECT_EQ(unexpected({failing.begin(), failing.end()}, fails ? told : L"(succeeds)"), L"") << fault_;
        EXPECT_EQ(stage_->session.open_records(), 0U) << fault_;
        EXPECT_EQ(stage_->scheduler.objects(), 0U) << fault_;
        EXPECT_FALSE(thread_is_impersonating()) << fault_;
        RevertToSelf();
        EXPECT_EQ(stage_->lost(failing), "") << fault_;
        const long left_open = static_cast<long>(open_handles()) - handles;
        EXPECT_TRUE(stage_->forget_upgrade()) << "a file is left open" << fault_;
        ++codes_[code];
        faults_ += stage_->sweep.failed();
        return left_open;
    }

    void inject(std::size_t nth)
    {
        for (const auto fault : {call_sweep::fault::passing, call_sweep::fault::staying}) {
            // A handle that stays may be the system's own, made on first use; one that a second run leaves as
            // well is leaked.
            if (run(nth, fault) > 0) {
                EXPECT_LE(run(nth, fault), 0) << "handles left open" << fault_;
            }
        }
    }

    inline static std::deque<toy_process> programs_; // of all actions, since in the play they run for ever
    std::optional<stage> stage_;
    std::map<UINT, unsigned> codes_;
    std::size_t faults_ = 0;
    std::string fault_;
};

TEST_P(FaultSweep, returns_a_code_of_its_own_and_leaves_nothing_behind)
{
    testing::internal::CaptureStdout(); // what the action prints, a thousand times
    run(0, call_sweep::fault::passing); // what the system makes on first use
    EXPECT_EQ(run(0, call_sweep::fault::passing), 0) << "handles left open without a fault";
    EXPECT_EQ(codes_[ERROR_SUCCESS], 2U) << testing::PrintToString(stage_->session.messages().back());
    codes_.clear();
    const auto calls = stage_->sweep.calls();
    const std::string swept = sweep_calls(calls, 5, [this](std::size_t nth) { inject(nth); });
    if (const std::string output = testing::internal::GetCapturedStdout(); HasFailure()) {
        std::cout << output;
    }
    EXPECT_GE(faults_, calls.empty() ? 0U : 2U);

    std::cout << GetParam() << ": " << swept << "; " << faults_ << " faults; codes";
    for (const auto& [code, count] : codes_) {
        std::cout << ' ' << code << " x " << count;
    }
    std::cout << (HasFailure() ? "; see above\n" : "; nothing left open or behind, nothing lost\n");
}

INSTANTIATE_TEST_SUITE_P(
    Exports,
    FaultSweep,
    testing::ValuesIn(pe_image{loaded_library{}.module()}.exported_names()),
    [](const auto& tested) { return tested.param; });

} // namespace
} // namespace test_support
