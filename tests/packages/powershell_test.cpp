#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"
#include "support/disposable_machine.h"
#include "support/toy_suite.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faults.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

namespace custom_actions {
namespace {

TEST(PowerShell, literals_double_single_quotes_and_nothing_else)
{
    EXPECT_EQ(quote_powershell_literal(L"'`$(\"\u2018\u2019\")\n"), L"'''`$(\"\u2018\u2019\")\n'");
}

TEST(PowerShell, runs_a_script_as_the_user_and_kills_it_after_its_time_limit)
{
    if (!test_support::machine_is_disposable()) {
        GTEST_SKIP() << "replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed";
    }
    auto* const module = GetModuleHandleW(nullptr);
    const test_support::intercepted_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> start{
        module, [](const auto&... arguments) -> std::optional<BOOL> {
            const auto& [user, program, line, p, t, inherit, flags, environment, directory, startup, out] =
                std::tie(arguments...);
            EXPECT_EQ(program, std::wstring{directory} + LR"(\WindowsPowerShell\v1.0\powershell.exe)");
            EXPECT_EQ(inherit, FALSE);
            EXPECT_EQ(flags, DWORD{CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT});
            EXPECT_NE(environment, nullptr);
            EXPECT_STREQ(startup->lpDesktop, LR"(winsta0\default)");
            return std::nullopt;
        }};
    const test_support::intercepted_import<"CreateFileW", decltype(CreateFileW)> open{
        module, [](LPCWSTR path, auto...) -> std::optional<HANDLE> {
            const bool is_log = std::wstring_view{path}.ends_with(L".log");
            EXPECT_EQ(test_support::thread_is_impersonating(), is_log)
                << "only the log is opened as the user";
            return std::nullopt;
        }};
    const test_support::fake_clock clock{module};
    test_support::test_session session{module};
    const test_support::upgrade_fixture fixture;
    const controlled_upgrade::context& upgrade = fixture.context();
    const std::wstring log = upgrade.workspace + L"\\output\\capture-folders.log";
    std::filesystem::create_directories(upgrade.workspace + L"\\output");

    const auto& messages = session.messages();
    std::string output;
    const auto run = [&](const wchar_t* order, const wchar_t* argument, DWORD limit = 20'000) {
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
        const test_support::failing_import<"GetFileType", decltype(GetFileType)> pipe{
            module, FILE_TYPE_PIPE, {0, 1, 0}};
        EXPECT_EQ(run(L"PrintOut", L"0 capture"), failed) << "the log is not a file";
    }
    EXPECT_EQ(run(L"Die", L"4294967295 capture"), failed);
    const DWORD elevation =
        toy_powershell::state_key{}.number(L"ElevationType").value_or(TokenElevationTypeFull);
    EXPECT_NE(elevation, DWORD{TokenElevationTypeFull});
    EXPECT_EQ(
        messages.back().text,
        L"Controlled upgrade: capture-folders finished in 0 ms, exit 4294967295; log: " + log);
    controlled_upgrade::context bracketed = upgrade; // its program exists, but PowerShell cannot start it
    bracketed.product_directory += L"\\[1]";
    std::filesystem::create_directory(bracketed.product_directory);
    std::filesystem::copy_file(
        fixture.program(L"Quorbel.exe"), bracketed.product_directory + L"\\Quorbel.exe");
    EXPECT_EQ(
        test_support::thrown_by([&] {
            const auto script = controlled_upgrade::whats_new_script(bracketed);
            run_powershell(session.handle(), bracketed, script, L"open-whats-new", 20'000);
        }),
        failed);
    EXPECT_EQ(run(L"Hang", L"capture", 300), "User operation timed out; see retained upgrade recovery logs");
    EXPECT_EQ(
        messages.back().text,
        L"Controlled upgrade: Operation timed out; AppX service work may still be pending. Retaining "
        L"recovery state at " +
            upgrade.workspace);
    EXPECT_EQ(messages.front().text, L"Controlled upgrade: Starting capture-folders for " + upgrade.user_sid);
    EXPECT_EQ(test_support::end_programs(L"powershell.exe"), 0U) << "the script still runs";
    EXPECT_TRUE(std::filesystem::exists(log)) << "the log must be kept";
}

} // namespace
} // namespace custom_actions
