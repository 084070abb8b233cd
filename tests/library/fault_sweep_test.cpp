// Every action of the built library with the n-th of its calls to Windows failing, for every n: once with the
// fault passing and once with it staying. It has to return one of its codes and to leave nothing behind.
//
// A run of each place in the code (the same call by the same way) is always swept, and of the other calls as
// many as SWEEP_SECONDS allow for an action, evenly chosen; SWEEP_SECONDS=full sweeps every call.

#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "tests/support/call_sweep.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/pe_image.h"
#include "tests/support/played_machine.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"
#include "tests/support/test_limit.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace test_support {
namespace {

using custom_actions::controlled_upgrade::UPGRADE_PACKAGES;
using custom_actions::controlled_upgrade::user_access;
namespace marker = custom_actions::controlled_upgrade::marker;

constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* PRODUCT = L"{01234567-89AB-CDEF-0123-456789ABCDEF}";
constexpr const wchar_t* SUITE_COMPONENT = L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}";
const std::wstring HANDLERS =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\)";
const std::wstring ASSOCIATIONS = LR"(Software\Classes\SystemFileAssociations\)";
const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring ICON_SLOT = LR"(\ShellEx\IconHandler)";
const std::wstring DRIVES = LR"(Software\Classes\Applications\Explorer.exe\Drives\)";

void plant(HKEY root, const std::wstring& path, const wchar_t* name, std::wstring_view text)
{
    plant_value(root, path, name, registry_text(text));
}

// What an action is called with, and on which machine.
class stage {
public:
    stage()
    {
        for (const wchar_t* package : UPGRADE_PACKAGES) {
            std::ofstream{folder / package} << "package";
        }
    }

    ~stage() { forget_upgrade(); }

    stage(const stage&) = delete;
    stage& operator=(const stage&) = delete;

    // Programs of the suite, and hosts of its libraries.
    void start_programs()
    {
        start(L"Quorbel.exe", true);
        start(L"Quorbel.Comment.exe", false);
        start(L"Quorbel.Kindra.HelperService.exe", false);
        start(L"dllhost.exe", false, L"Quorbel.WindowOrganizer.Hook.dll");
        start_explorer(L"Sorvane.Icon.ShellExtension.dll");
    }

    void start_explorer(const std::wstring& loaded_library = L"")
    {
        explorer = start(L"explorer.exe", false, loaded_library);
    }

    void set(const wchar_t* property, const std::wstring& value) { session.set_property(property, value); }

    void empty_hives()
    {
        user_hive_.reset(); // where the other one's keys are
        machine_hive_.reset();
        machine_hive_.emplace(HKEY_LOCAL_MACHINE);
        user_hive_.emplace(HKEY_CURRENT_USER);
        // Without it nobody has an environment.
        plant(
            HKEY_LOCAL_MACHINE,
            LR"(SYSTEM\CurrentControlSet\Control\Session Manager\Environment)",
            L"OS",
            L"");
    }

    [[nodiscard]] std::string last_message() const
    {
        return session.messages().empty() ? "" : testing::PrintToString(session.messages().back());
    }

    // As the phases are given it.
    [[nodiscard]] std::wstring upgrade_data() const
    {
        return custom_actions::controlled_upgrade::format_context(
            folder.wstring(), session_id, user, PRODUCT);
    }

    [[nodiscard]] custom_actions::controlled_upgrade::context upgrade() const
    {
        return custom_actions::controlled_upgrade::load_context(upgrade_data());
    }

    void forget_upgrade() const
    {
        std::error_code ignored;
        std::filesystem::remove_all(upgrade().workspace, ignored);
    }

    // The upgrade's folder as an earlier phase left it.
    void begin_upgrade(const std::vector<std::wstring>& markers) const
    {
        forget_upgrade();
        const auto context = upgrade();
        create_secure_directory(context.workspace, user, user_access::full);
        create_secure_directory(context.workspace + L"\\output", user, user_access::full);
        for (const std::wstring& name : markers) {
            write_marker(context, name);
        }
    }

    loaded_library library;
    scripted_session session{library.module()};
    played_machine machine{library.module()};
    std::filesystem::path folder = std::filesystem::path{toy_library(L"any.dll")}.parent_path();
    DWORD session_id = own_session();
    std::wstring user = own_user();
    DWORD explorer = 0;

private:
    static DWORD own_session()
    {
        DWORD id = 0;
        ProcessIdToSessionId(GetCurrentProcessId(), &id);
        return id;
    }

    static std::wstring own_user()
    {
        custom_actions::kernel_handle token;
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
        return custom_actions::token_user_sid(token.get());
    }

    DWORD start(const std::wstring& name, bool polite, const std::wstring& loaded_library = L"")
    {
        const DWORD id = programs_.emplace_back(name).id();
        machine.list(id, name, polite, loaded_library);
        return id;
    }

    std::optional<registry_sandbox> machine_hive_;
    std::optional<registry_sandbox> user_hive_;
    std::deque<toy_process> programs_;
};

struct scenario {
    // Once, before the first run.
    std::function<void(stage&)> set_up = [](stage&) {};
    // Before each run, with both hives empty, no property set, every program running and Search running.
    std::function<void(stage&)> prepare = [](stage&) {};
    // What a run has lost that it must not, after a fault of this function; empty for nothing.
    std::function<std::string(const stage&, std::string_view failing)> lost =
        [](const stage&, std::string_view) { return std::string{}; };
    std::set<UINT> codes = {0, 1603};
    UINT code = 0; // without a fault
};

// Complains where `text` is neither what the key has as its default value nor in its backup.
std::string
lost_handler(HKEY root, const std::wstring& path, const wchar_t* backup, const wchar_t* text = FOREIGN)
{
    const bool there = planted_value(root, path, L"") == registry_text(text) ||
                       planted_value(root, path, backup) == registry_text(text);
    return there ? "" : "a handler that was replaced, and its backup";
}

void plant_property_handlers(bool registered)
{
    const std::wstring ours{
        custom_actions::PROPERTY_HANDLER_CLSID.begin(), custom_actions::PROPERTY_HANDLER_CLSID.end()};
    plant(HKEY_LOCAL_MACHINE, HANDLERS + L".jpg", L"OriginalPropertyHandler", FOREIGN);
    for (const wchar_t* type : {L".jpg", L".one", L".two"}) {
        for (const auto& [name, list] :
             {std::pair{L"FullDetails", custom_actions::FULL_DETAILS_LIST},
              std::pair{L"PreviewDetails", custom_actions::PREVIEW_DETAILS_LIST},
              std::pair{L"InfoTip", custom_actions::INFOTIP_LIST}}) {
            plant(HKEY_LOCAL_MACHINE, ASSOCIATIONS + type, name, std::wstring{list.begin(), list.end()});
        }
    }
    if (registered) {
        plant(HKEY_LOCAL_MACHINE, HANDLERS + L".one", L"", ours);
        plant(HKEY_LOCAL_MACHINE, HANDLERS + L".two", L"", ours);
    } else {
        for (const std::string_view type : custom_actions::PROPERTY_HANDLER_EXTENSIONS) {
            if (type < ".d" || type > ".l") { // the others are enough for a first registration
                plant(HKEY_LOCAL_MACHINE, HANDLERS + std::wstring{type.begin(), type.end()}, L"", ours);
            }
        }
    }
    plant(HKEY_LOCAL_MACHINE, HANDLERS + L".png", L"", FOREIGN);
    plant(HKEY_LOCAL_MACHINE, HANDLERS + L".jpg", L"", registered ? ours : L"{another}");
}

void plant_icon_handlers(const wchar_t* handler)
{
    for (const std::wstring& path : {ASSOCIATIONS + L".ini" + ICON_SLOT, CLASSES + L"toyfile" + ICON_SLOT}) {
        plant(HKEY_CURRENT_USER, path, L"", handler);
        plant(HKEY_CURRENT_USER, path, custom_actions::ICON_HANDLER_BACKUP_VALUE, FOREIGN);
    }
    plant(HKEY_CURRENT_USER, CLASSES + L".ini", L"", L"toyfile");
    plant(HKEY_CURRENT_USER, CLASSES + L".ico\\OpenWithProgids", L"otherfile", L"");
}

std::string lost_icon_handler()
{
    return lost_handler(
               HKEY_CURRENT_USER,
               ASSOCIATIONS + L".ini" + ICON_SLOT,
               custom_actions::ICON_HANDLER_BACKUP_VALUE) +
           lost_handler(
               HKEY_CURRENT_USER,
               CLASSES + L"toyfile" + ICON_SLOT,
               custom_actions::ICON_HANDLER_BACKUP_VALUE);
}

void plant_what_the_icon_handler_removes()
{
    plant_icon_handlers(custom_actions::ICON_HANDLER_CLSID);
    for (const std::wstring& slot :
         {ICON_SLOT, LR"(\ShellEx\)" + std::wstring{custom_actions::THUMBNAIL_HANDLER_SLOT}}) {
        plant(HKEY_CURRENT_USER, ASSOCIATIONS + L".ico" + slot, L"", custom_actions::ICON_HANDLER_CLSID);
    }
    plant_value(
        HKEY_CURRENT_USER,
        ASSOCIATIONS + L".ico",
        custom_actions::TREATMENT_MARKER_VALUE,
        {"\1\0\0\0", 4},
        REG_DWORD);
    for (const wchar_t* drive : {L"C\\DefaultIcon", L"D\\DefaultIcon"}) {
        plant(HKEY_CURRENT_USER, DRIVES + drive, L"", L"ours.ico");
        plant(HKEY_CURRENT_USER, DRIVES + drive, L"sorvane_drive_icon_applied", L"ours.ico");
    }
    plant(HKEY_CURRENT_USER, DRIVES + L"C\\DefaultIcon", L"sorvane_drive_icon_original", FOREIGN);
    plant_value(
        HKEY_CURRENT_USER,
        DRIVES + L"C\\DefaultIcon",
        L"sorvane_drive_icon_had_original",
        {"\1\0\0\0", 4},
        REG_DWORD);
}

void set_package_data(stage& stage)
{
    stage.set(L"CustomActionData", L"C:\\Suite\\Sorvane.Icon.Package.msix");
}

// A phase of an upgrade whose earlier phases left these markers.
scenario phase(std::vector<std::wstring> markers)
{
    return {
        .set_up = [](stage& stage) { stage.start_programs(); },
        .prepare =
            [markers = std::move(markers)](stage& stage) {
                stage.begin_upgrade(markers);
                stage.set(L"CustomActionData", stage.upgrade_data());
            }};
}

std::map<std::string, scenario> scenarios()
{
    const auto searching = [](const wchar_t* data, DWORD state) {
        return scenario{.prepare = [=](stage& stage) {
            stage.set(L"CustomActionData", data);
            stage.machine.begin_anew(state);
        }};
    };

    std::map<std::string, scenario> all;
    all["check_upgrade_type"].prepare = [](stage& stage) {
        stage.set(L"ProductVersion", L"2.0.0");
        stage.set(L"INSTALLED_APP_VERSION", L"1.5.0");
    };
    all["notify_restart_recommended"] = {};
    all["propertyhandler_update_registry"] = {
        .prepare = [](stage&) { plant_property_handlers(false); },
        .lost =
            [](const stage&, std::string_view) {
                return lost_handler(HKEY_LOCAL_MACHINE, HANDLERS + L".jpg", L"OriginalPropertyHandler") +
                       lost_handler(HKEY_LOCAL_MACHINE, HANDLERS + L".png", L"");
            }};
    all["propertyhandler_remove_registry"] = {
        .prepare = [](stage&) { plant_property_handlers(true); },
        .lost =
            [](const stage&, std::string_view failing) {
                // A key that cannot be opened is deleted, where that can be done.
                return failing == "RegOpenKeyExA"
                           ? ""
                           : lost_handler(
                                 HKEY_LOCAL_MACHINE, HANDLERS + L".jpg", L"OriginalPropertyHandler") +
                                 lost_handler(HKEY_LOCAL_MACHINE, HANDLERS + L".png", L"");
            }};
    all["iconhandler_add_defaults_to_registry"] = {
        .prepare = [](stage&) { plant_icon_handlers(L"{another}"); },
        .lost = [](const stage&, std::string_view) { return lost_icon_handler(); }};
    all["iconhandler_remove_registry"] = {
        .prepare = [](stage&) { plant_what_the_icon_handler_removes(); },
        .lost =
            [](const stage&, std::string_view failing) {
                // Where it cannot be told whether a drive had an icon, it had none.
                return lost_icon_handler() + (failing == "RegQueryValueExW"
                                                  ? ""
                                                  : lost_handler(
                                                        HKEY_CURRENT_USER,
                                                        DRIVES + L"C\\DefaultIcon",
                                                        L"sorvane_drive_icon_original"));
            }};
    all["restore_built_in_new_context_menu"].prepare = [](stage&) {
        plant(
            HKEY_CURRENT_USER,
            LR"(Software\Classes\Directory\Background\ShellEx\ContextMenuHandlers\New)",
            L"",
            FOREIGN);
    };
    all["log_app_control_state"] = {};
    all["close_and_kill_our_processes"].set_up = [](stage& stage) { stage.start_programs(); };
    all["restore_explorer"] = {
        .set_up = [](stage& stage) { stage.start_explorer(); },
        .prepare =
            [](stage& stage) {
                stage.machine.end(stage.explorer);
                stage.set(L"CustomActionData", custom_actions::explorer_record(stage.session_id, stage.user));
            }};
    all["capture_search_state"] = {};
    all["stop_search"] = searching(L"running", SERVICE_RUNNING);
    all["restore_search"] = searching(L"running", SERVICE_STOP_PENDING);
    all["msix_install_package"] = {.prepare = set_package_data, .codes = {0, 87, 1603}};
    all["msix_uninstall_package"] = {
        .prepare = [](stage& stage) { stage.set(L"CustomActionData", L"Sorvane.Icon"); },
        .codes = {0, 87, 1603}};
    all["prepare_controlled_upgrade"] = {
        .set_up = [](stage& stage) { stage.start_explorer(); },
        .prepare =
            [](stage& stage) {
                stage.set(L"WIX_UPGRADE_DETECTED", PRODUCT);
                stage.session.install_component(
                    PRODUCT, SUITE_COMPONENT, (stage.folder / L"Quorbel.exe").wstring());
            }};
    all["begin_controlled_upgrade"] = {
        .set_up = [](stage& stage) { stage.start_programs(); },
        .prepare =
            [](stage& stage) {
                stage.forget_upgrade();
                stage.set(L"CustomActionData", stage.upgrade_data());
            }};
    const std::wstring search = marker::SEARCH_START_TYPE + std::to_wstring(SERVICE_AUTO_START);
    all["install_upgrade_packages"] = phase({marker::BACKUP_COMPLETE, marker::SHUTDOWN_STARTED});
    all["finish_controlled_upgrade"] = phase(
        {marker::PACKAGES_VERIFIED,
         search,
         marker::SEARCH_DELAYED_START,
         marker::SEARCH_RUNNING,
         marker::HELPER_RUNNING});
    all["rollback_controlled_upgrade"] = phase(
        {marker::SHUTDOWN_STARTED,
         marker::PACKAGES_TOUCHED,
         search,
         marker::SEARCH_RUNNING,
         std::wstring{marker::REGISTERED} + L"0"});
    all["early_close_upgrade"] = {
        .set_up = [](stage& stage) { stage.start_programs(); },
        .prepare = [](stage& stage) { stage.set(L"begin_controlled_upgrade", stage.upgrade_data()); }};
    all["recover_early_upgrade"].prepare = [](stage& stage) {
        stage.set(L"QblEarlyRecoveryTask", std::wstring{L"QBL-EarlyRecovery-"} + PRODUCT);
    };
    return all;
}

std::vector<std::string> exported_actions()
{
    return pe_image{loaded_library{}.module()}.exported_names();
}

// How much is swept beyond the first call at each place.
struct sweep_limit {
    bool full = false;
    std::chrono::duration<double> sampling{0.3};

    sweep_limit()
    {
        if (const char* const seconds = std::getenv("SWEEP_SECONDS")) {
            full = std::string_view{seconds} == "full";
            sampling = std::chrono::duration<double>{std::atof(seconds)};
        }
    }
};

std::string name_of(call_sweep::lasting how)
{
    return how == call_sweep::lasting::once ? "passing" : "staying";
}

class FaultSweep : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP()
                << "starts programs with the suite's names: set DISPOSABLE_MACHINE where that may be";
        }
        const auto all = scenarios();
        ASSERT_TRUE(all.contains(GetParam())) << "an action without a scenario";
        scenario_ = all.at(GetParam());
        scenario_.set_up(stage_);
        sweep_.emplace(stage_.library.module());
    }

    // Calls the action and looks at what it leaves. Returns how many handles more are open than before.
    long run(std::size_t nth, call_sweep::lasting how)
    {
        stage_.empty_hives();
        for (const wchar_t* property :
             {L"CustomActionData", L"begin_controlled_upgrade", L"INSTALLFOLDER", L"QblEarlyRecoveryTask"}) {
            stage_.set(property, L"");
        }
        stage_.machine.begin_anew();
        scenario_.prepare(stage_);

        const DWORD handles = open_handles();
        UINT code = 0;
        sweep_->fail_at(nth, how);
        EXPECT_NO_THROW(code = stage_.library.call(GetParam().c_str(), stage_.session.handle()));
        const auto& calls = sweep_->calls();
        const bool reached = nth != 0 && nth <= calls.size();
        const std::string_view failing = reached ? calls[nth - 1].function : "nothing";
        const std::string fault =
            std::string{failing} + ", call " + std::to_string(nth) + ", " + name_of(how);

        EXPECT_TRUE(scenario_.codes.contains(code)) << code << " after " << fault;
        EXPECT_EQ(stage_.session.open_records(), 0U) << fault;
        EXPECT_EQ(stage_.machine.open_service_handles(), 0U) << fault;
        EXPECT_FALSE(thread_is_impersonating()) << fault;
        EXPECT_EQ(scenario_.lost(stage_, failing), "") << fault;
        ++codes_[code];
        faults_ += sweep_->failed();
        fault_ = fault;
        return static_cast<long>(open_handles()) - static_cast<long>(handles);
    }

    // A handle that stays may be the system's own, made on first use; one that a second run leaves as well is
    // leaked.
    void run_twice_where_a_handle_stays(std::size_t nth, call_sweep::lasting how)
    {
        if (run(nth, how) > 0) {
            EXPECT_LE(run(nth, how), 0) << "handles left open after " << fault_;
        }
    }

    void inject(std::size_t nth)
    {
        ++swept_calls_;
        for (const auto how : {call_sweep::lasting::once, call_sweep::lasting::staying}) {
            run_twice_where_a_handle_stays(nth, how);
        }
    }

    void sweep_every_call()
    {
        for (std::size_t nth = 1;; ++nth) {
            inject(nth);
            if (sweep_->calls().size() < nth) {
                return;
            }
        }
    }

    void sweep_places_and_sample(std::chrono::duration<double> limit)
    {
        std::vector<std::size_t> others;
        std::set<std::size_t> places;
        const auto calls = sweep_->calls();
        for (std::size_t nth = 1; nth <= calls.size(); ++nth) {
            if (!calls[nth - 1].can_fail) {
                continue;
            }
            if (places.insert(calls[nth - 1].place).second) {
                inject(nth);
            } else {
                others.push_back(nth);
            }
        }
        const auto end = std::chrono::steady_clock::now() + limit;
        // The golden ratio's multiples cover the calls evenly, wherever they end.
        std::set<std::size_t> chosen;
        for (double at = 0;
             !others.empty() && chosen.size() < others.size() && std::chrono::steady_clock::now() < end;
             at = std::fmod(at + 0.6180339887, 1.0)) {
            const auto index = static_cast<std::size_t>(at * static_cast<double>(others.size()));
            if (chosen.insert(index).second) {
                inject(others[index]);
            }
        }
    }

    stage stage_;
    scenario scenario_;
    std::optional<call_sweep> sweep_;
    std::map<UINT, unsigned> codes_;
    std::size_t faults_ = 0;
    std::size_t swept_calls_ = 0;
    std::string fault_;
};

TEST_P(FaultSweep, returns_a_code_of_its_own_and_leaves_nothing_behind)
{
    const sweep_limit limit;
    allow_test(limit.full ? std::chrono::hours{1} : std::chrono::minutes{2});
    run(0, call_sweep::lasting::once); // what the system makes on first use
    EXPECT_EQ(run(0, call_sweep::lasting::once), 0) << "handles left open without a fault";
    EXPECT_TRUE(codes_.contains(scenario_.code)) << stage_.last_message();
    const auto calls = sweep_->calls();
    codes_.clear();
    std::set<std::size_t> places;
    for (const auto& call : calls) {
        places.insert(call.place);
    }
    const auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStdout(); // what the action prints, a thousand times
    if (limit.full) {
        sweep_every_call();
    } else {
        sweep_places_and_sample(limit.sampling);
    }
    if (const std::string output = testing::internal::GetCapturedStdout(); HasFailure()) {
        std::cout << output;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;

    std::cout << GetParam() << ": " << calls.size() << " calls at " << places.size() << " places; swept "
              << swept_calls_ << ", " << faults_ << " faults injected; codes";
    for (const auto& [code, count] : codes_) {
        std::cout << ' ' << code << " x " << count << (code == codes_.rbegin()->first ? "" : ",");
    }
    std::cout << "; " << took.count() << " s\n";
}

INSTANTIATE_TEST_SUITE_P(Exports, FaultSweep, testing::ValuesIn(exported_actions()), [](const auto& tested) {
    return tested.param;
});

} // namespace
} // namespace test_support
