// The upgrade's phases with their process killed before one of the calls to Windows that the library makes,
// and then the rollback in a process of its own: what the markers on the disk promise must hold.
//
// As many calls are taken as SWEEP seconds allow for a phase, spread over it: four that change something,
// those that come first at their places in the code before the others, and then one that does not. SWEEP=full
// takes every call.

#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "package/toy_suite/powershell/state.h"
#include "tests/support/call_sweep.h"
#include "tests/support/child_process.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"
#include "tests/support/test_limit.h"
#include "tests/support/upgrade_scene.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <map>
#include <numeric>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {
namespace {

namespace marker = custom_actions::controlled_upgrade::marker;
using custom_actions::controlled_upgrade::guard_is_live;
using custom_actions::controlled_upgrade::has_marker;
using custom_actions::controlled_upgrade::write_marker;

constexpr UINT KILLED = 77;
constexpr const char* ORDER = "CRASH_SWEEP_ORDER"; // "ACTION FUNCTION NTH", killed before its n-th call
constexpr const wchar_t* DATA = L"CRASH_SWEEP_DATA";
constexpr const char* COUNT = "count"; // as the function: nothing is killed, every call is told

constexpr const char* BEGIN = "begin_controlled_upgrade";
constexpr const char* INSTALL = "install_upgrade_packages";
constexpr const char* FINISH = "finish_controlled_upgrade";
constexpr const char* ROLLBACK = "rollback_controlled_upgrade";

constexpr const wchar_t* HELPER = L"Quorbel.Kindra.HelperService.exe";
constexpr const wchar_t* TRAY = L"Quorbel.SystemTray.exe";
constexpr const wchar_t* HOTKEYS = L"Quorbel.HotkeyHandler.exe";
constexpr const wchar_t* MAIN = L"Quorbel.exe";
constexpr const wchar_t* MAINTENANCE_KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
constexpr const wchar_t* FOLDER = L"file:///C:/Users";

bool changes_something(const std::string& function)
{
    constexpr std::string_view functions =
        " AdjustTokenPrivileges ChangeServiceConfig2W ChangeServiceConfigW ControlService CopyFileW "
        "CreateDirectoryW CreateFileW CreateProcessAsUserW ImpersonateLoggedOnUser PostMessageW "
        "PostThreadMessageW RegCreateKeyExW RegDeleteKeyExW RegSetValueExW SetThreadToken StartServiceW "
        "TerminateProcess WriteFile ";
    return functions.find(' ' + function + ' ') != std::string_view::npos;
}

// The waits between two looks at what has been asked for are shorter here.
void WINAPI nap(DWORD milliseconds)
{
    SleepEx(std::min<DWORD>(milliseconds, 20), FALSE);
}

// Runs one action of the library, as the environment orders.
TEST(Fault, DISABLED_is_killed_in_an_action)
{
    std::istringstream order{std::getenv(ORDER)};
    std::string action;
    std::string function;
    std::size_t nth = 0;
    order >> action >> function >> nth;
    std::wstring data(1024, L'\0');
    data.resize(GetEnvironmentVariableW(DATA, data.data(), static_cast<DWORD>(data.size())));

    const loaded_library library;
    scripted_session session{library.module()};
    const import_patch<decltype(Sleep)> impatience{library.module(), "Sleep", &nap};
    session.set_property(L"CustomActionData", data);
    call_sweep sweep{library.module()};
    if (nth != 0) {
        sweep.end_process_at(function, nth, KILLED);
    }
    const UINT code = library.call(action.c_str(), session.handle());
    std::cout << '\n';
    if (function == COUNT) {
        for (const auto& call : sweep.calls()) {
            std::cout << "call " << call.function << ' ' << call.place << '\n';
        }
    }
    for (const auto& message : session.messages()) {
        std::cout << "message " << testing::PrintToString(message) << '\n';
    }
    std::cout << "code " << code << '\n';
}

struct point {
    std::string function;
    std::size_t nth;
};

// All of them, wherever one stops taking them from all over the phase.
std::vector<point> spread(const std::vector<point>& points)
{
    std::size_t step = (points.size() * 618 / 1000) + 1;
    while (std::gcd(step, points.size()) != 1) {
        ++step;
    }
    std::vector<point> order;
    order.reserve(points.size());
    for (std::size_t index = 1; index <= points.size(); ++index) {
        order.push_back(points[index * step % points.size()]);
    }
    return order;
}

// Where to kill, from what a child tells that counts the calls; the last ones first. Of the calls that change
// something, these are the first ones of their places in the code.
struct sweep_plan {
    explicit sweep_plan(const std::string& told)
    {
        std::vector<point> of_new_places;
        std::map<std::string, std::size_t> calls_of;
        std::set<std::string> places;
        std::istringstream words{told.substr(std::min(told.find("\ncall "), told.size()))};
        std::string place;
        for (point call; words >> place && place == "call" && words >> call.function >> place;) {
            call.nth = ++calls_of[call.function];
            const bool is_new = places.insert(place).second;
            auto& changing_ones = is_new ? of_new_places : changing;
            (changes_something(call.function) ? changing_ones : others).push_back(call);
        }
        others = spread(others);
        changing = spread(changing);
        const auto first = spread(of_new_places);
        changing.insert(changing.end(), first.begin(), first.end());
    }

    std::vector<point> changing;
    std::vector<point> others;
};

std::vector<DWORD> running(const std::vector<std::wstring>& images)
{
    return custom_actions::find_processes_by_image(images, custom_actions::listing::strict);
}

class CrashSweep : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "ends programs, replaces PowerShell: set DISPOSABLE_MACHINE where that may be";
        }
        search_.emplace(search_behaviour{.start_time = 50, .stop_time = 50}); // on demand
        search_->start();
        scene_.emplace();
        const auto& upgrade = scene_->context();
        SetEnvironmentVariableW(
            DATA, custom_actions::explorer_record(upgrade.session_id, upgrade.user_sid).c_str());
        ASSERT_THAT(run("restore_explorer").output, testing::HasSubstr("\ncode 0\n"));
        SetEnvironmentVariableW(DATA, scene_->data().c_str());
        start_programs();
        begins_ = GetParam() == std::string_view{BEGIN};
        if (!begins_) { // the first phase for real, once: the later ones add to what it leaves, and no more
            scene_->powershell.open_folders({FOLDER, L"https://example.org/"});
            ASSERT_EQ(run(BEGIN).exit_code, 0U);
            markers_of_begin_ = scene_->markers();
            ASSERT_THAT(markers_of_begin_, testing::Contains("shutdown-started"));
        }
    }

    void TearDown() override
    {
        programs_.clear();
        scene_.reset();
        search_.reset();
        end_explorer();
    }

    child_result run(const std::string& action, const std::string& function = "-", std::size_t nth = 0)
    {
        SetEnvironmentVariableA(ORDER, (action + ' ' + function + ' ' + std::to_string(nth)).c_str());
        child_result result = run_child(
            L'"' + this_program() +
                L"\" --gtest_also_run_disabled_tests --gtest_filter=Fault.DISABLED_is_killed_in_an_action",
            std::chrono::seconds{40});
        std::erase(result.output, '\r');
        return result;
    }

    void start_programs()
    {
        for (const wchar_t* program : {HELPER, TRAY, HOTKEYS}) {
            if (running({program}).empty()) {
                programs_.emplace_back(scene_->program(program));
            }
        }
    }

    static void forget_packages()
    {
        const toy_powershell::state_key registered{L"Packages"};
        for (const std::wstring& name : registered.subkeys()) {
            registered.remove_subkey(name);
        }
    }

    // The machine as it is before the phase. Windows Search and the suite run, since the rollback before has
    // brought them back; a later phase finds Search blocked, and the suite as though somebody had started it
    // again. (The scripts' logs of the run before stay, and are written over.)
    void prepare()
    {
        scene_->powershell.open_folders({FOLDER, L"https://example.org/"});
        forget_packages();
        scene_->powershell.register_package(L"Sorvane.Icon", L"1.5.0.0");
        scene_->powershell.register_package(L"Quorbel.Paste", L"1.4.0.0");
        start_programs();
        const std::filesystem::path workspace = scene_->context().workspace;
        if (begins_) {
            std::filesystem::remove_all(workspace);
            return;
        }
        for (const std::string& name : scene_->markers()) {
            if (std::ranges::find(markers_of_begin_, name) == markers_of_begin_.end()) {
                std::filesystem::remove(workspace / name);
            }
        }
        custom_actions::set_search_start_type(SERVICE_DISABLED);
        custom_actions::stop_search_service();
        scene_->copy_packages(L"2.0.0");
        if (GetParam() == std::string_view{FINISH}) { // as the second phase leaves it
            end_explorer();
            forget_packages();
            for (const std::wstring file : custom_actions::controlled_upgrade::UPGRADE_PACKAGES) {
                scene_->powershell.register_package(file.substr(0, file.find(L".Package")), L"2.0.0.0");
            }
            write_marker(scene_->context(), marker::PACKAGES_TOUCHED);
            write_marker(scene_->context(), marker::PACKAGES_VERIFIED);
        }
    }

    template <class Found, class Expected>
    void holds(const char* what, const Found& found, const Expected& expected)
    {
        ++checked_;
        EXPECT_EQ(found, expected) << what << ", " << where_;
    }

    // Kills the phase before that call, rolls it back and looks at what became of the machine.
    void kill_at(const std::string& function, std::size_t nth)
    {
        prepare();
        const auto programs = running({HELPER, TRAY, HOTKEYS});
        last_ = run(GetParam(), function, nth);
        const bool killed = last_.exit_code == KILLED;
        killed_ += killed ? 1 : 0;
        where_ =
            (killed ? "killed" : "not killed") + std::string{" at "} + function + ' ' + std::to_string(nth);
        if (!killed) { // nothing made such a call this time, and the phase came to its end
            holds("the phase", last_.output.find("\ncode 0\n") != std::string::npos, true);
        }
        // A script outlives the action that was killed: the rollback may only come behind it.
        for (int tries = 0; tries != 1000 && !running({L"powershell.exe"}).empty(); ++tries) {
            SleepEx(10, FALSE);
        }
        holds("a key of a process that has gone is live", guard_is_live(), false);
        const bool stopped = has_marker(scene_->context(), marker::SHUTDOWN_STARTED);
        const bool touched = has_marker(scene_->context(), marker::PACKAGES_TOUCHED);
        auto markers = scene_->markers();
        if (!begins_) {
            // What the installer does before the rollback. Nothing of the new version holds these files,
            // which is what nobody but a failing finish itself makes sure of.
            scene_->copy_packages(L"1.5.0");
        }
        if (stopped) {
            scene_->powershell.open_folders({}); // Explorer may have been ended
            markers.emplace_back("rollback-complete");
            std::ranges::sort(markers);
        }

        const child_result rollback = run(ROLLBACK);
        where_.append("; ").append(rollback.output.substr(rollback.output.find("\nmessage ") + 1));
        holds("the rollback", rollback.output.find("\ncode 0\n") != std::string::npos, true);
        holds("the markers", scene_->markers(), markers);
        holds(
            "the maintenance key",
            RegDeleteKeyExW(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, KEY_WOW64_64KEY, 0),
            LSTATUS{ERROR_FILE_NOT_FOUND});
        // A registration that was another is now the installed package's.
        const std::wstring paste = touched ? L"Quorbel.Paste 1.5.0.0 Ok" : L"Quorbel.Paste 1.4.0.0 Ok";
        holds(
            "the packages",
            registered_packages(scene_->powershell),
            std::vector<std::wstring>{paste, L"Sorvane.Icon 1.5.0.0 Ok"});
        holds("Search", search_->state(), DWORD{SERVICE_RUNNING});
        holds(
            "Search's start",
            custom_actions::read_search_start_type().value_or(0),
            DWORD{SERVICE_DEMAND_START});
        if (!stopped) {
            holds("what the rollback had to do", rollback.output.find("\nmessage "), std::string::npos);
            holds("the programs", running({HELPER, TRAY, HOTKEYS}), programs);
            return;
        }
        holds("the helper", running({HELPER}).size(), 1U);
        holds("the tray", running({TRAY}).size(), 1U);
        holds("Explorer", running({L"explorer.exe"}).empty(), false);
        // Windows of other places than folders do not come back, and the suite's other programs do not.
        holds("the folder windows", scene_->powershell.folders(), std::vector<std::wstring>{FOLDER});
        holds("the other programs", running({HOTKEYS, MAIN}).size(), 0U);
    }

    std::optional<windows_search> search_;
    std::optional<upgrade_scene> scene_;
    std::deque<toy_process> programs_;
    std::vector<std::string> markers_of_begin_;
    import_patch<decltype(Sleep)> impatience_{GetModuleHandleW(nullptr), "Sleep", &nap};
    bool begins_ = false;
    child_result last_{};
    std::string where_;
    std::size_t killed_ = 0;
    std::size_t checked_ = 0;
};

TEST_P(CrashSweep, is_undone_whole_wherever_it_is_killed)
{
    using clock = std::chrono::steady_clock;
    const char* const told = std::getenv("SWEEP");
    const std::string sweep = told == nullptr ? "15" : told;
    const std::chrono::duration<double> budget{sweep == "full" ? 7200 : std::strtod(sweep.c_str(), nullptr)};
    allow_test(std::chrono::duration_cast<std::chrono::milliseconds>(budget) + std::chrono::minutes{2});
    const auto start = clock::now();

    kill_at(COUNT, 0); // where it is killed nowhere
    const sweep_plan calls{last_.output};
    ASSERT_GT(calls.changing.size(), 10U) << last_.output;
    sweep_plan left = calls;
    std::size_t taken = 0;
    while (!(left.changing.empty() && left.others.empty()) && clock::now() - start < budget &&
           !HasFailure()) {
        ++taken;
        auto& points =
            left.changing.empty() || (taken % 5 == 0 && !left.others.empty()) ? left.others : left.changing;
        kill_at(points.back().function, points.back().nth);
        points.pop_back();
    }
    EXPECT_GT(killed_, taken / 2) << "the calls are not those that were counted";
    EXPECT_EQ(scene_->powershell.refused(), L"");

    std::filesystem::remove_all(scene_->context().workspace); // the next one has another
    EXPECT_THAT(run(BEGIN).output, testing::HasSubstr("\ncode 0\n")) << "the next upgrade";
    const std::chrono::duration<double> took = clock::now() - start;
    std::cout << GetParam() << ": " << calls.changing.size() + calls.others.size() << " calls, "
              << calls.changing.size() << " change something; " << taken << " points taken, "
              << calls.changing.size() - left.changing.size() << " of them at these; " << killed_
              << " killed, " << checked_ << " invariants checked; " << took.count() << " s\n";
}

INSTANTIATE_TEST_SUITE_P(Phases, CrashSweep, testing::Values(BEGIN, INSTALL, FINISH), [](const auto& tested) {
    return std::string{tested.param};
});

} // namespace
} // namespace test_support
