#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"
#include "support/disposable_machine.h"
#include "tests/support/faults.h"
#include "tests/support/played_clock.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <userenv.h>
#include <wincrypt.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

namespace custom_actions {
namespace {

using test_support::intercepted_import;
using test_support::posted_message;
using test_support::thrown_by;
using testing::ElementsAre;

constexpr const char* FAILED = "User operation failed; see retained upgrade recovery logs";
constexpr const char* TIMED_OUT = "User operation timed out; see retained upgrade recovery logs";

TEST(PowerShellLiteral, doubles_single_quotes_and_nothing_else)
{
    EXPECT_EQ(quote_powershell_literal(L""), L"''");
    EXPECT_EQ(quote_powershell_literal(L"'`$(\"\u2018\u2019\")\n"), L"'''`$(\"\u2018\u2019\")\n'");
}

class PowerShell : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "takes PowerShell's place: set DISPOSABLE_MACHINE where that may be";
        }
        scene.emplace();
        std::filesystem::create_directories(scene->context().workspace + L"\\output");
        log = scene->context().workspace + L"\\output\\capture-folders.log";
        starting = line(L"Starting capture-folders for " + scene->context().user_sid);
    }

    std::string run(DWORD limit = 20'000)
    {
        const auto script = controlled_upgrade::capture_folders_script(scene->context());
        return run_powershell(session.handle(), scene->context(), script, L"capture-folders", limit);
    }

    static posted_message line(const std::wstring& text)
    {
        return {INSTALLMESSAGE_INFO, L"Controlled upgrade: " + text};
    }

    posted_message finished(const wchar_t* code) const
    {
        return line(std::wstring{L"capture-folders finished in 0 ms, exit "} + code + L"; log: " + log);
    }

    HMODULE module = GetModuleHandleW(nullptr);
    std::optional<test_support::upgrade_scene> scene;
    test_support::scripted_session session{module};
    test_support::played_clock clock{module};
    std::wstring log;
    posted_message starting;
};

TEST_F(PowerShell, runs_the_script_as_the_user_and_returns_its_log)
{
    const intercepted_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> start{
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
    std::string output;
    scene->powershell.tell(L"PrintOut", L"300000 capture");
    EXPECT_EQ(thrown_by([&] { output = run(); }), "");
    EXPECT_EQ(output.size(), 300'003U) << "all of it, with its byte-order mark";
    scene->powershell.tell_nothing();
    EXPECT_EQ(thrown_by([&] { output = run(); }), "");
    EXPECT_EQ(output, "\xEF\xBB\xBF") << "of this run alone";
    EXPECT_TRUE(std::filesystem::exists(log)) << "it stays";
    EXPECT_THAT(session.messages(), ElementsAre(starting, finished(L"0"), starting, finished(L"0")));
}

TEST_F(PowerShell, tells_what_failed_and_ends_a_script_that_is_over_its_time)
{
    const auto call = [&] { run(); };
    EXPECT_EQ(THROWN_WITH(call, CryptBinaryToStringW, FALSE, {13}), "Cannot encode user operation (13)");
    EXPECT_EQ(THROWN_WITH(call, GetSystemDirectoryW, 0, {0}), "Cannot resolve system directory");
    EXPECT_EQ(THROWN_WITH(call, CreateEnvironmentBlock, FALSE, {14}), "Cannot create user environment (14)");
    EXPECT_EQ(
        THROWN_WITH(call, CreateProcessAsUserW, FALSE, {ERROR_PRIVILEGE_NOT_HELD}),
        "Cannot launch package operation as original user (1314)");
    EXPECT_THAT(session.messages(), testing::IsEmpty());

    EXPECT_EQ(THROWN_WITH(call, GetExitCodeProcess, FALSE, {6}), "Cannot read user operation result (6)");
    EXPECT_EQ(THROWN_WITH(call, ReadFile, FALSE, {ERROR_READ_FAULT}), FAILED);
    scene->powershell.tell(L"Die", L"4294967295 capture");
    EXPECT_EQ(thrown_by(call), FAILED);
    scene->powershell.tell_nothing();
    scene->powershell.tell(L"NoLog", L"capture");
    std::filesystem::remove(log);
    EXPECT_EQ(thrown_by(call), FAILED);

    const std::wstring& workspace = scene->context().workspace;
    const posted_message over = line(
        L"Operation timed out; AppX service work may still be pending. Retaining recovery state at " +
        workspace);
    const intercepted_import<"TerminateProcess", decltype(TerminateProcess)> end{
        module, [&](HANDLE, UINT code) -> std::optional<BOOL> {
            EXPECT_EQ(code, UINT{ERROR_TIMEOUT});
            return std::nullopt;
        }};
    scene->powershell.tell_nothing();
    scene->powershell.tell(L"Hang", L"capture");
    EXPECT_EQ(thrown_by([&] { run(300); }), TIMED_OUT);
    EXPECT_EQ(THROWN_WITH(call, WaitForSingleObject, WAIT_FAILED, {6}), TIMED_OUT);
    EXPECT_EQ(test_support::end_programs(L"powershell.exe"), 0U) << "both are gone";
    EXPECT_TRUE(std::filesystem::exists(workspace));
    const posted_message done = finished(L"0");
    const posted_message dead = finished(L"4294967295");
    EXPECT_THAT(
        session.messages(),
        testing::ElementsAreArray(
            {starting, starting, done, starting, dead, starting, done, starting, over, starting, over}));
}

} // namespace
} // namespace custom_actions
