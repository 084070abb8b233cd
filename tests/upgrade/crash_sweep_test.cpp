// Ends each upgrade phase before each of its calls that change something, as if its process had been killed,
// then rolls back: the machine must be in the state that the markers on the disk promise.

#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <ranges>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace test_support {
namespace {

constexpr const wchar_t* MAINTENANCE_KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";

// Writing is not among them: a marker exists as soon as its file does.
bool changes_something(const std::string& call)
{
    static const std::regex changing{
        "(Change|Control|Copy|Create(Dir|File|Proc)|Post|Reg[CDS][er]|Start|Term).*"};
    return std::regex_match(call, changing);
}

class CrashSweep : public furnished_test, public testing::WithParamInterface<const char*> {
protected:
    static DWORD WINAPI run_phase(void* /*unused*/)
    {
        return stage->library.call(GetParam(), stage->session.handle());
    }

    // Furnishes the machine, runs the phase on a thread that ends before the n-th call, and returns its
    // result.
    static DWORD kill_at(std::size_t nth)
    {
        stage->furnish(GetParam());
        stage->sweep.plan(nth, call_sweep::fault::ends_thread);
        const custom_actions::kernel_handle thread{CreateThread(nullptr, 0, run_phase, nullptr, 0, nullptr)};
        WaitForSingleObject(thread.get(), INFINITE);
        DWORD result = 0;
        GetExitCodeThread(thread.get(), &result);
        return result;
    }

    static void check_rollback()
    {
        std::set<std::wstring> markers = stage->markers();
        const bool stopped = markers.contains(L"shutdown-started");
        const auto running = stage->machine.running;
        const std::size_t posted = stage->session.messages().size();
        stage->sweep.plan(0, call_sweep::fault::passing);
        EXPECT_EQ(stage->library.call("rollback_controlled_upgrade", stage->session.handle()), 0U);
        const auto restored = std::ranges::count_if(
            stage->session.messages() | std::views::drop(posted), [](const auto& message) {
                return message.text.starts_with(L"Controlled upgrade: Starting rollback-");
            });
        EXPECT_EQ(restored, markers.contains(L"packages-touched") ? 8 : 0) << "packages";
        EXPECT_EQ(stage->machine.search_states.back(), DWORD{SERVICE_RUNNING});
        EXPECT_EQ(stage->machine.search_start, DWORD{SERVICE_AUTO_START});
        EXPECT_TRUE(stage->machine.search_delayed);
        EXPECT_FALSE(planted_value(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, L"Process")) << "the key stays";
        if (stopped) {
            markers.insert(L"rollback-complete");
            EXPECT_EQ(std::ranges::count(stage->machine.running, stage->explorer.id()), 1)
                << "Explorer must run";
        } else {
            EXPECT_EQ(stage->machine.running, running);
        }
        EXPECT_EQ(stage->markers(), markers);
    }
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
