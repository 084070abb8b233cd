// Scripts of the phases, run with the PowerShell stand-in.

#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"
#include "support/disposable_machine.h"
#include "support/real_session.h"
#include "support/toy_suite.h"
#include "tests/support/faults.h"
#include "tests/support/upgrade_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace custom_actions {
namespace {

TEST(PowerShell, runs_a_script_as_the_user_and_kills_it_after_its_time_limit)
{
    if (!test_support::machine_is_disposable()) {
        GTEST_SKIP() << "replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed";
    }
    const test_support::real_session session;
    const test_support::upgrade_fixture fixture;
    const controlled_upgrade::context& upgrade = fixture.context();
    std::string output;
    const auto run = [&](const wchar_t* order, const wchar_t* argument, DWORD limit = 60'000) {
        fixture.powershell.clear_orders();
        fixture.powershell.set_order(order, argument);
        return test_support::thrown_by([&] {
            const auto script = controlled_upgrade::capture_folders_script(upgrade);
            output = run_powershell(session.handle(), upgrade, script, L"capture-folders", limit);
        });
    };
    const std::string failed = "User operation failed; see retained upgrade recovery logs";
    EXPECT_EQ(run(L"NoLog", L"capture"), failed);
    EXPECT_EQ(run(L"PrintOut", L"300000 capture"), "");
    EXPECT_EQ(output.size(), 300'003U) << "all of it, with its byte-order mark";
    EXPECT_EQ(run(L"PrintOut", L"0 capture"), "");
    EXPECT_EQ(output, "") << "output of an earlier run";
    EXPECT_EQ(run(L"PrintOut", L"16777213 capture"), "") << "16 MiB with the byte-order mark";
    EXPECT_EQ(run(L"PrintOut", L"16777214 capture"), failed);
    {
        auto* const module = GetModuleHandleW(nullptr);
        const test_support::import_hook pipe{module, "GetFileType", [] { return FILE_TYPE_PIPE; }};
        EXPECT_EQ(run(L"PrintOut", L"0 capture"), failed) << "the log is not a file";
    }
    EXPECT_EQ(run(L"Die", L"4294967295 capture"), failed);
    EXPECT_NE(toy_powershell::state_key{}.number(L"ElevationType"), DWORD{TokenElevationTypeFull});
    EXPECT_EQ(run(L"Hang", L"capture", 300), "User operation timed out; see retained upgrade recovery logs");
    EXPECT_EQ(test_support::end_programs(L"powershell.exe"), 0U) << "the script still runs";
    EXPECT_TRUE(std::filesystem::exists(upgrade.workspace + L"\\output\\capture-folders.log"));
}

} // namespace
} // namespace custom_actions
