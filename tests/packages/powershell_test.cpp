#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
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
#include <vector>

namespace custom_actions {
namespace {

using test_support::intercepted_import;
using test_support::posted_message;
using test_support::thrown_by;
using testing::ElementsAre;

constexpr const char* FAILED = "User operation failed; see retained upgrade recovery logs";
constexpr const char* TIMED_OUT = "User operation timed out; see retained upgrade recovery logs";
constexpr UINT INFO = 0x04000000;

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

TEST(PowerShellLiteral, doubles_single_quotes_and_nothing_else)
{
    EXPECT_EQ(quote_powershell_literal(L""), L"''");
    EXPECT_EQ(quote_powershell_literal(L"'"), L"''''");
    EXPECT_EQ(quote_powershell_literal(L"`$(\"\u2018it's\u2019\"){}\n"), L"'`$(\"\u2018it''s\u2019\"){}\n'");
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
        starting = {INFO, L"Controlled upgrade: Starting capture-folders for " + scene->context().user_sid};
        script = controlled_upgrade::capture_folders_script(scene->context());
    }

    std::string run(DWORD limit = 20'000)
    {
        return run_powershell(session.handle(), scene->context(), script, L"capture-folders", limit);
    }

    testing::Matcher<posted_message> finished(const wchar_t* code) const
    {
        return testing::AllOf(
            testing::Field(&posted_message::type, INFO),
            testing::Field(
                &posted_message::text,
                testing::AllOf(
                    testing::StartsWith(L"Controlled upgrade: capture-folders finished in "),
                    testing::EndsWith(std::wstring{L" ms, exit "} + code + L"; log: " + log))));
    }

    std::optional<test_support::upgrade_scene> scene;
    test_support::scripted_session session{module_under_test()};
    std::wstring log;
    std::wstring script;
    posted_message starting;
};

TEST_F(PowerShell, runs_the_script_as_the_user_and_returns_its_log)
{
    const intercepted_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> start{
        module_under_test(), [](const auto&... arguments) -> std::optional<BOOL> {
            const auto& [user, program, line, p, t, inherit, flags, environment, directory, startup, out] =
                std::tie(arguments...);
            EXPECT_EQ(program, std::wstring{directory} + LR"(\WindowsPowerShell\v1.0\powershell.exe)");
            EXPECT_EQ(inherit, FALSE);
            EXPECT_EQ(flags, 0x08000400U);
            EXPECT_NE(environment, nullptr);
            EXPECT_EQ(startup->lpDesktop, std::wstring{LR"(winsta0\default)"});
            return std::nullopt;
        }};
    std::string output;
    scene->powershell.tell(L"PrintOut", L"300000 capture");
    EXPECT_EQ(thrown_by([&] { output = run(); }), "");
    EXPECT_EQ(output.size(), 300'003U) << "all of it, with its byte-order mark";
    EXPECT_EQ(std::filesystem::file_size(log), output.size());
    scene->powershell.tell_nothing();
    EXPECT_EQ(thrown_by([&] { output = run(); }), "");
    EXPECT_EQ(output, "\xEF\xBB\xBF") << "of this run alone";

    EXPECT_THAT(session.messages(), ElementsAre(starting, finished(L"0"), starting, finished(L"0")));
    const std::wstring quoted = quote_powershell_literal(log);
    EXPECT_EQ(
        scene->powershell.scripts().back(),
        L"$ErrorActionPreference='Stop'; $ProgressPreference='SilentlyContinue'; try { & { " + script +
            L" } *>&1 | Out-File -LiteralPath " + quoted +
            L" -Encoding utf8; exit 0 } catch { $_ | Out-String | Out-File -LiteralPath " + quoted +
            L" -Encoding utf8 -Append; exit 1 }");
}

TEST_F(PowerShell, tells_what_failed)
{
    const auto call = [&] { run(); };
    const char* const not_encoded = "Cannot encode user operation (13)";
    EXPECT_EQ(THROWN_WITH(call, CryptBinaryToStringW, FALSE, {ERROR_INVALID_DATA}), not_encoded);
    EXPECT_EQ(THROWN_WITH(call, CryptBinaryToStringW, FALSE, {ERROR_INVALID_DATA, 2}), not_encoded);
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
    std::filesystem::remove(log);
    scene->powershell.tell(L"NoLog", L"capture");
    EXPECT_EQ(thrown_by(call), FAILED);
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            starting, starting, finished(L"0"), starting, finished(L"4294967295"), starting, finished(L"0")));
}

TEST_F(PowerShell, is_ended_when_its_time_is_over_or_cannot_be_told)
{
    scene->powershell.tell(L"Hang", L"capture");
    std::vector<DWORD> calls; // the limits of its waits, and between them the code that it is ended with
    {
        const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> wait{
            module_under_test(), [&](HANDLE, DWORD limit) -> std::optional<DWORD> {
                calls.push_back(limit);
                return std::nullopt;
            }};
        const intercepted_import<"TerminateProcess", decltype(TerminateProcess)> end{
            module_under_test(), [&](HANDLE, UINT code) -> std::optional<BOOL> {
                calls.push_back(code);
                return std::nullopt;
            }};
        EXPECT_EQ(thrown_by([&] { run(300); }), TIMED_OUT);
    }
    EXPECT_THAT(calls, ElementsAre(300U, 1460U, 5000U));
    EXPECT_EQ(THROWN_WITH([&] { run(); }, WaitForSingleObject, WAIT_FAILED, {6}), TIMED_OUT);
    EXPECT_EQ(test_support::end_programs(L"powershell.exe"), 0U) << "they are gone";
    const std::wstring& workspace = scene->context().workspace;
    const posted_message over{
        INFO,
        L"Controlled upgrade: Operation timed out; AppX service work may still be pending. Retaining "
        L"recovery "
        L"state at " +
            workspace};
    EXPECT_THAT(session.messages(), ElementsAre(starting, over, starting, over));
    EXPECT_TRUE(std::filesystem::exists(workspace + L"\\output"));
}

} // namespace
} // namespace custom_actions
