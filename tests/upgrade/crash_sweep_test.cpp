// Ends each upgrade phase before each of its calls that change something, as if its process had been killed,
// then rolls back: the machine must be in the state that the markers on the disk promise.

#include "support/disposable_machine.h"
#include "tests/support/call_sweep.h"
#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace test_support {
namespace {

namespace fs = std::filesystem;

// Writing is not among them: a marker exists as soon as its file does.
bool changes_something(std::string_view call)
{
    const auto begins = [call](std::string_view prefix) { return call.starts_with(prefix); };
    constexpr std::string_view changing[]{
        "Change",
        "Control",
        "Copy",
        "CreateD",
        "CreateF",
        "CreateP",
        "Post",
        "RegC",
        "RegD",
        "RegS",
        "Start",
        "Term"};
    return std::ranges::any_of(changing, begins);
}

class CrashSweep : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "starts the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        stage.emplace();
    }

    static DWORD WINAPI run_phase(void* test)
    {
        const auto& stage = *static_cast<CrashSweep*>(test)->stage;
        return stage.library.call(GetParam(), stage.session.handle());
    }

    // Furnishes the machine, runs the phase on a thread that ends before the n-th call, and returns its
    // result.
    DWORD kill_at(std::size_t nth)
    {
        stage->furnish(GetParam());
        stage->sweep.plan(nth, call_sweep::fault::ends_thread);
        const custom_actions::kernel_handle thread{CreateThread(nullptr, 0, run_phase, this, 0, nullptr)};
        WaitForSingleObject(thread.get(), INFINITE);
        DWORD result = 0;
        GetExitCodeThread(thread.get(), &result);
        return result;
    }

    [[nodiscard]] std::set<std::wstring> markers() const
    {
        std::set<std::wstring> found;
        std::error_code none;
        for (const auto& entry : fs::directory_iterator{stage->upgrade.workspace, none}) {
            if (entry.is_regular_file() && entry.path().extension() != L".msix") {
                found.insert(entry.path().filename());
            }
        }
        return found;
    }

    // Rolls back and returns how many scripts of each kind this runs.
    std::map<std::wstring, int> roll_back()
    {
        const std::size_t posted = stage->session.messages().size();
        stage->sweep.plan(0, call_sweep::fault::passing);
        EXPECT_EQ(stage->library.call("rollback_controlled_upgrade", stage->session.handle()), 0U);
        std::map<std::wstring, int> scripts;
        const std::wstring starting = L"Controlled upgrade: Starting ";
        for (std::size_t i = posted; i != stage->session.messages().size(); ++i) {
            if (const std::wstring& text = stage->session.messages()[i].text; text.starts_with(starting)) {
                const std::wstring name =
                    text.substr(starting.size(), text.find(L' ', starting.size()) - starting.size());
                ++scripts[name.substr(0, name.find_first_of(L"-0123456789"))];
            }
        }
        return scripts;
    }

    void check_rollback()
    {
        auto expected = markers();
        const bool stopped = expected.contains(L"shutdown-started");
        const auto before = stage->machine.running;
        std::map<std::wstring, int> scripts;
        if (stopped) {
            expected.insert(L"rollback-complete");
            scripts[L"restore"] = 1;
        }
        if (expected.contains(L"packages-touched")) {
            scripts[L"rollback"] = 8;
        }
        EXPECT_EQ(roll_back(), scripts);
        EXPECT_EQ(markers(), expected);
        custom_actions::registry_key_handle key;
        const auto* const path = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
        EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, key.put()), ERROR_FILE_NOT_FOUND)
            << "the key stays";
        EXPECT_EQ(stage->machine.search_states.back(), DWORD{SERVICE_RUNNING});
        EXPECT_EQ(stage->machine.search_start, DWORD{SERVICE_AUTO_START});
        EXPECT_TRUE(stage->machine.search_delayed);
        if (stopped) {
            EXPECT_EQ(std::ranges::count(stage->machine.running, stage->explorer.id()), 1)
                << "Explorer must run";
        } else {
            EXPECT_EQ(stage->machine.running, before);
        }
    }

    std::optional<furnished_machine> stage;
};

TEST_P(CrashSweep, is_undone_wherever_it_ends)
{
    EXPECT_EQ(kill_at(0), DWORD{ERROR_SUCCESS});
    const std::vector<std::string> calls = stage->sweep.calls();
    std::size_t killed = 0;
    for (std::size_t nth = 1; nth <= calls.size() && !HasFailure(); ++nth) {
        if (changes_something(calls[nth - 1])) {
            SCOPED_TRACE("ended before " + calls[nth - 1] + ", call " + std::to_string(nth));
            EXPECT_EQ(kill_at(nth), DWORD{call_sweep::KILLED});
            check_rollback();
            ++killed;
        }
    }
    EXPECT_GT(killed, 10U);
    std::cout << GetParam() << ": ended before " << killed << " of " << calls.size() << " calls\n";
}

INSTANTIATE_TEST_SUITE_P(
    Phases,
    CrashSweep,
    testing::Values("begin_controlled_upgrade", "install_upgrade_packages", "finish_controlled_upgrade"),
    [](const auto& tested) { return std::string{tested.param}; });

} // namespace
} // namespace test_support
