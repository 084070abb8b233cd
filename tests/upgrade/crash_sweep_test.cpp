// Kills each upgrade phase before one of its calls that change something, then runs the rollback in a new
// process: the machine must be in the state that the markers on the disk promise. Tries every fourth of these
// calls, or all of them if SWEEP is set.

#include "custom_actions/common/text.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/search/search_service.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "support/ascii.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "tests/support/call_sweep.h"
#include "tests/support/test_limit.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"
#include "tests/support/windows_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {
namespace {

namespace fs = std::filesystem;
using custom_actions::controlled_upgrade::guard_is_live;
using custom_actions::controlled_upgrade::write_marker;

constexpr const wchar_t* ORDER = L"CRASH_SWEEP_ORDER"; // "NTH ACTION DATA": run and kill before the n-th call

constexpr const char* BEGIN = "begin_controlled_upgrade";
constexpr const char* FINISH = "finish_controlled_upgrade";

constexpr const wchar_t* HELPER = L"Quorbel.Kindra.HelperService.exe";
constexpr const wchar_t* TRAY = L"Quorbel.SystemTray.exe";
constexpr const wchar_t* HOTKEYS = L"Quorbel.HotkeyHandler.exe";
constexpr const wchar_t* MAINTENANCE_KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
constexpr const wchar_t* FOLDER = L"file:///C:/Users";

// The calls that change the machine. Writing is not among them: a marker exists as soon as its file does.
const std::vector<std::string_view> CHANGING{
    "Change", "Control", "Copy", "CreateD", "CreateF", "CreateP", "Post", "Reg", "Start", "Term"};

// Shortens the intervals at which the library polls.
void WINAPI short_sleep(DWORD milliseconds)
{
    SleepEx(std::min<DWORD>(milliseconds, 20), FALSE);
}

// Runs one action of the library as ORDER says, and prints its calls and messages.
TEST(Fault, DISABLED_is_killed_in_an_action)
{
    const wchar_t* const order = _wgetenv(ORDER);
    ASSERT_NE(order, nullptr);
    std::wistringstream words{order};
    std::size_t nth = 0;
    std::wstring action;
    std::wstring data;
    words >> nth >> action >> std::ws;
    std::getline(words, data);

    const loaded_library library;
    test_session session{library.module()};
    const import_patch<decltype(Sleep)> sleep{library.module(), "Sleep", &short_sleep};
    session.set_property(L"CustomActionData", data);
    call_sweep sweep{library.module(), CHANGING};
    sweep.plan(nth, call_sweep::fault::ends_process);
    EXPECT_EQ(library.call(as_ascii(action).c_str(), session.handle()), UINT{ERROR_SUCCESS});
    for (const std::string& call : sweep.calls()) {
        std::cout << "call " << call << '\n';
    }
    for (const auto& message : session.messages()) {
        std::cout << "message " << testing::PrintToString(message) << '\n';
    }
}

child_result run(const std::string& action, const std::wstring& data, std::size_t nth = 0)
{
    const std::wstring name = custom_actions::widen(action);
    SetEnvironmentVariableW(ORDER, (std::to_wstring(nth) + L' ' + name + L' ' + data).c_str());
    return run_child(
        L'"' + this_program() +
            L"\" --gtest_also_run_disabled_tests --gtest_filter=Fault.DISABLED_is_killed_in_an_action",
        std::chrono::seconds{40});
}

void expect_success(const std::string& action, const std::wstring& data)
{
    const child_result result = run(action, data);
    EXPECT_EQ(result.exit_code, 0U) << action << result.output;
}

std::vector<DWORD> running(const std::vector<std::wstring_view>& images)
{
    return custom_actions::find_processes_by_image(images, custom_actions::listing::strict);
}

// Kills one of the phases again and again on the same machine.
class crash_test {
public:
    explicit crash_test(const std::string& phase) : phase_{phase}
    {
        search_.start();
        if (phase != BEGIN) { // run once: the later phases start from a copy of its workspace
            prepare();
            expect_success(BEGIN, fixture_.data());
            begun_ = fixture_.program(L"begun");
            fs::copy(fixture_.context().workspace, begun_, fs::copy_options::recursive);
        }
    }

    ~crash_test() { end_explorer(); }

    crash_test(const crash_test&) = delete;
    crash_test& operator=(const crash_test&) = delete;

    void sweep()
    {
        std::istringstream words{kill_at(0)}; // without killing it
        for (std::string word; words >> word;) {
            if (word == "call" && words >> word) {
                calls_.push_back(word);
            }
        }
        ASSERT_GT(calls_.size(), 10U);
        allow_test(std::chrono::minutes{6});
        const std::size_t step = std::getenv("SWEEP") == nullptr ? 4 : 1;
        for (std::size_t nth = 1; nth <= calls_.size() && !testing::Test::HasFailure(); nth += step) {
            kill_at(nth);
        }
        EXPECT_EQ(fixture_.powershell.refused(), L"");
        fs::remove_all(fixture_.context().workspace); // after all rollbacks a new upgrade must begin
        expect_success(BEGIN, fixture_.data());
        std::cout << phase_ << ": " << calls_.size() << " calls, killed before " << killed_ << ", "
                  << checked_ << " invariants checked\n";
    }

private:
    // Prepares the machine for the phase. Windows Search and the suite run, as the last rollback restored
    // them; before a later phase Search is disabled and stopped.
    void prepare()
    {
        fixture_.powershell.open_folders({FOLDER, L"https://example.org/"});
        for (const wchar_t* program : {HELPER, TRAY, HOTKEYS}) {
            if (running({program}).empty()) {
                programs_.emplace_back(fixture_.program(program));
            }
        }
        fs::remove_all(fixture_.context().workspace);
        if (begun_.empty()) {
            return;
        }
        fs::copy(begun_, fixture_.context().workspace, fs::copy_options::recursive);
        custom_actions::set_search_start_type(SERVICE_DISABLED);
        custom_actions::stop_search_service();
        fixture_.copy_packages(L"2.0.0");
        if (phase_ == FINISH) { // what the second phase does
            end_explorer();
            for (const std::wstring file : custom_actions::controlled_upgrade::UPGRADE_PACKAGES) {
                fixture_.powershell.register_package(file.substr(0, file.find(L".Package")), L"2.0.0.0");
            }
            write_marker(fixture_.context(), L"packages-touched");
            write_marker(fixture_.context(), L"packages-verified");
        }
    }

    template <class Found, class Expected>
    void holds(const char* what, const Found& found, const Expected& expected)
    {
        ++checked_;
        EXPECT_EQ(found, expected) << what;
    }

    // Kills the phase before its n-th call (0: not at all), rolls back and checks the machine. Returns the
    // phase's output.
    std::string kill_at(std::size_t nth)
    {
        prepare();
        const auto programs = running({HELPER, TRAY, HOTKEYS});
        std::vector<std::wstring> packages = registered_packages();
        const child_result phase = run(phase_, fixture_.data(), nth);
        const std::string call = nth == 0 ? "no call" : calls_[nth - 1];
        SCOPED_TRACE("killed before " + call + ", " + std::to_string(nth) + "; " + phase.output);
        killed_ += phase.exit_code == call_sweep::KILLED ? 1 : 0;
        // The number of calls varies from run to run: in the second half the phase may end before the n-th.
        const bool may_end = phase.exit_code == 0 && (nth == 0 || nth * 2 > calls_.size());
        holds("the phase", phase.exit_code, may_end ? 0U : call_sweep::KILLED);
        // A script may outlive the killed action: the rollback must not start before it ends.
        for (int tries = 0; tries != 1000 && !running({L"powershell.exe"}).empty(); ++tries) {
            SleepEx(10, FALSE);
        }
        holds("the maintenance key of an ended process is live", guard_is_live(), false);
        auto markers = fixture_.markers();
        const bool stopped = std::ranges::count(markers, "shutdown-started") != 0;
        if (stopped) {
            fixture_.powershell.open_folders({}); // Explorer may have been ended
            markers.emplace_back("rollback-complete");
            std::ranges::sort(markers);
        }
        if (std::ranges::count(markers, "packages-touched") != 0) {
            // Every package that was registered is now registered in the installed version.
            packages = {L"Quorbel.Paste 1.5.0.0 Ok", L"Sorvane.Icon 1.5.0.0 Ok"};
        }
        // The installer restores the files before the rollback. No program of the new version holds them
        // here, which on a real machine only a failing finish makes sure of.
        fixture_.copy_packages(L"1.5.0");

        const child_result rollback = run("rollback_controlled_upgrade", fixture_.data());
        SCOPED_TRACE("rolled back: " + rollback.output);
        holds("the rollback", rollback.exit_code, 0U);
        holds("the markers", fixture_.markers(), markers);
        const LSTATUS key = RegDeleteKeyExW(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, KEY_WOW64_64KEY, 0);
        holds("the maintenance key", key, LSTATUS{ERROR_FILE_NOT_FOUND});
        holds("the packages", registered_packages(), packages);
        holds("Search", search_.state(), DWORD{SERVICE_RUNNING});
        const auto start_type = custom_actions::read_search_start_type();
        holds("its start", start_type, std::optional<DWORD>{SERVICE_DEMAND_START});
        if (!stopped) {
            holds("a message of the rollback", rollback.output.find("message "), std::string::npos);
            holds("the programs", running({HELPER, TRAY, HOTKEYS}), programs);
            return phase.output;
        }
        holds("the helper", running({HELPER}).size(), 1U);
        holds("the tray", running({TRAY}).size(), 1U);
        holds("Explorer", running({L"explorer.exe"}).empty(), false);
        // Only windows of folders are reopened, and no other program of the suite restarts.
        holds("the folder windows", fixture_.powershell.folders(), std::vector<std::wstring>{FOLDER});
        holds("the other programs", running({HOTKEYS, L"Quorbel.exe"}).size(), 0U);
        return phase.output;
    }

    std::string phase_;
    windows_search search_; // on demand
    upgrade_fixture fixture_;
    std::deque<toy_process> programs_;
    fs::path begun_; // a copy of the workspace that the first phase left
    import_patch<decltype(Sleep)> sleep_{GetModuleHandleW(nullptr), "Sleep", &short_sleep};
    std::vector<std::string> calls_;
    std::size_t killed_ = 0;
    std::size_t checked_ = 0;
};

class CrashSweep : public testing::TestWithParam<const char*> {};

TEST_P(CrashSweep, is_fully_undone_wherever_it_is_killed)
{
    if (!machine_is_disposable()) {
        GTEST_SKIP() << "ends programs, replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed";
    }
    crash_test{GetParam()}.sweep();
}

INSTANTIATE_TEST_SUITE_P(
    Phases, CrashSweep, testing::Values(BEGIN, "install_upgrade_packages", FINISH), [](const auto& tested) {
        return std::string{tested.param};
    });

} // namespace
} // namespace test_support
