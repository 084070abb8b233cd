#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/scripts.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <userenv.h>
#include <wincrypt.h>
#include <wtsapi32.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>

namespace custom_actions {
namespace {

using test_support::intercepted_import;
using test_support::thrown_by;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* FAILED = "User operation failed; see retained upgrade recovery logs";
constexpr const char* TIMED_OUT = "User operation timed out; see retained upgrade recovery logs";

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

TEST(PowerShellLiteral, doubles_single_quotes_and_nothing_else)
{
    EXPECT_EQ(quote_powershell_literal(L""), L"''");
    EXPECT_EQ(quote_powershell_literal(L"'"), L"''''");
    EXPECT_EQ(quote_powershell_literal(L"it's"), L"'it''s'");
    EXPECT_EQ(quote_powershell_literal(L"`$(\"\u2018\u2019\"){}\n"), L"'`$(\"\u2018\u2019\"){}\n'");
}

// Reads the literal at the text's front: its value, and how long it is. A quote that another follows is one
// of the value's; any other ends it.
std::optional<std::pair<std::wstring, std::size_t>> read_literal(const std::wstring& text)
{
    std::wstring value;
    bool after_quote = false;
    for (std::size_t i = 1; text[0] == L'\'' && i <= text.size(); ++i) {
        const bool is_quote = i < text.size() && text[i] == L'\'';
        if (after_quote && !is_quote) {
            return std::pair{value, i};
        }
        if (!is_quote || after_quote) {
            value += i < text.size() ? text[i] : L'\0';
        }
        after_quote = is_quote && !after_quote;
    }
    return std::nullopt;
}

TEST(PowerShellLiteral, ends_where_the_text_does)
{
    static constexpr std::wstring_view units = L"'''\"$`;{}() \\x\n\u00E9\u2013\xD800";
    std::mt19937 random{20'240'607}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in every run
    for (int i = 0; i != 100'000; ++i) {
        std::wstring text(random() % 24, L'\0');
        for (wchar_t& unit : text) {
            unit = units[random() % units.size()];
        }
        const std::wstring literal = quote_powershell_literal(text);
        ASSERT_EQ(read_literal(literal + L"; exit 0"), (std::pair{text, literal.size()}))
            << testing::PrintToString(text);
    }
}

// The log lines, with the time that a script took as "N".
std::vector<std::wstring> lines_of(const test_support::scripted_session& session)
{
    std::vector<std::wstring> lines;
    for (const auto& [type, text] : session.messages()) {
        EXPECT_EQ(type, 0x04000000U);
        std::wstring line = text;
        if (const std::size_t time = line.find(L" finished in "); time != std::wstring::npos) {
            const std::size_t digits = time + std::size(L" finished in ") - 1;
            line.replace(digits, line.find(L' ', digits) - digits, L"N");
        }
        lines.push_back(line);
    }
    return lines;
}

class PowerShell : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "takes PowerShell's place: set DISPOSABLE_MACHINE where that may be";
        }
        scene.emplace();
        workspace = scene->context().workspace;
        std::filesystem::create_directories(workspace + L"\\output");
        log = workspace + L"\\output\\capture-folders.log";
        starting = L"Controlled upgrade: Starting capture-folders for " + scene->context().user_sid;
    }

    std::string run(DWORD limit = 20'000)
    {
        return run_powershell(
            session.handle(),
            scene->context(),
            controlled_upgrade::capture_folders_script(scene->context()),
            L"capture-folders",
            limit);
    }

    std::string log_content()
    {
        std::ostringstream content;
        content << std::ifstream{std::filesystem::path{log}, std::ios::binary}.rdbuf();
        return content.str();
    }

    std::optional<test_support::upgrade_scene> scene;
    test_support::scripted_session session{module_under_test()};
    std::wstring workspace;
    std::wstring log;
    std::wstring starting;
};

std::wstring finished(const std::wstring& code, const std::wstring& log)
{
    return L"Controlled upgrade: capture-folders finished in N ms, exit " + code + L"; log: " + log;
}

TEST_F(PowerShell, runs_the_script_as_the_user_and_returns_its_log)
{
    std::vector<std::wstring> starts;
    const intercepted_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> start{
        module_under_test(),
        [&](HANDLE user,
            LPCWSTR program,
            LPWSTR command_line,
            LPSECURITY_ATTRIBUTES,
            LPSECURITY_ATTRIBUTES,
            BOOL inherit,
            DWORD flags,
            LPVOID environment,
            LPCWSTR directory,
            LPSTARTUPINFOW startup,
            LPPROCESS_INFORMATION) -> std::optional<BOOL> {
            const std::wstring path = std::wstring{directory} + LR"(\WindowsPowerShell\v1.0\powershell.exe)";
            EXPECT_EQ(program, path);
            EXPECT_EQ(
                std::wstring{command_line}.rfind(
                    L'"' + path + L"\" -NoProfile -NonInteractive -WindowStyle Hidden -EncodedCommand ", 0),
                0U);
            EXPECT_EQ(inherit, FALSE);
            EXPECT_EQ(flags, 0x08000400U);
            EXPECT_NE(environment, nullptr);
            EXPECT_EQ(startup->lpDesktop, std::wstring{LR"(winsta0\default)"});
            EXPECT_NE(token_elevation_type(user), TokenElevationTypeFull);
            starts.emplace_back(directory);
            return std::nullopt;
        }};

    scene->powershell.tell(L"PrintOut", L"3000000 capture");
    std::string output;
    EXPECT_EQ(thrown_by([&] { output = run(); }), "");
    EXPECT_EQ(output.size(), 3'000'003U) << "all of it, with its byte-order mark";
    EXPECT_EQ(output, log_content());
    scene->powershell.tell_nothing();
    EXPECT_EQ(thrown_by([&] { output = run(); }), "");
    EXPECT_EQ(output, "\xEF\xBB\xBF") << "of this run alone";

    EXPECT_THAT(starts, testing::SizeIs(2));
    EXPECT_NE(scene->powershell.elevation(), TokenElevationTypeFull);
    EXPECT_THAT(lines_of(session), ElementsAre(starting, finished(L"0", log), starting, finished(L"0", log)));
    const std::wstring quoted = quote_powershell_literal(log);
    EXPECT_EQ(
        scene->powershell.scripts().back(),
        L"$ErrorActionPreference='Stop'; $ProgressPreference='SilentlyContinue'; try { & { " +
            controlled_upgrade::capture_folders_script(scene->context()) +
            L" } *>&1 | Out-File -LiteralPath " + quoted +
            L" -Encoding utf8; exit 0 } catch { $_ | Out-String | Out-File -LiteralPath " + quoted +
            L" -Encoding utf8 -Append; exit 1 }");
}

TEST_F(PowerShell, is_not_started_where_anything_before_fails_and_tells_what)
{
    const auto call = [&] { run(); };
    EXPECT_EQ(
        THROWN_WITH(call, CryptBinaryToStringW, FALSE, {ERROR_INVALID_DATA}),
        "Cannot encode user operation (13)");
    EXPECT_EQ(
        THROWN_WITH(call, CryptBinaryToStringW, FALSE, {ERROR_INVALID_DATA, 2}),
        "Cannot encode user operation (13)");
    EXPECT_EQ(THROWN_WITH(call, GetSystemDirectoryW, 0, {ERROR_SUCCESS}), "Cannot resolve system directory");
    EXPECT_EQ(
        THROWN_WITH(call, WTSQueryUserToken, FALSE, {ERROR_NO_TOKEN}),
        "Cannot obtain original interactive user token (1008)");
    EXPECT_EQ(
        THROWN_WITH(call, CreateEnvironmentBlock, FALSE, {ERROR_OUTOFMEMORY}),
        "Cannot create user environment (14)");
    EXPECT_EQ(
        THROWN_WITH(call, CreateProcessAsUserW, FALSE, {ERROR_PRIVILEGE_NOT_HELD}),
        "Cannot launch package operation as original user (1314)");
    controlled_upgrade::context other_user = scene->context();
    other_user.user_sid += L"0";
    EXPECT_EQ(
        thrown_by([&] { run_powershell(session.handle(), other_user, L"x", L"x", 0); }),
        "Interactive user changed during upgrade");
    EXPECT_THAT(scene->powershell.scripts(), IsEmpty());
    EXPECT_THAT(session.messages(), IsEmpty());
}

TEST_F(PowerShell, fails_by_its_exit_code_or_for_want_of_a_log)
{
    const auto call = [&] { run(); };
    scene->powershell.tell(L"PrintOut", L"10 capture");
    scene->powershell.tell(L"Fail", L"capture");
    EXPECT_EQ(thrown_by(call), FAILED);
    EXPECT_EQ(
        log_content(),
        "\xEF\xBB\xBF"
        "0123456789The script was told to fail\r\n\r\n");
    scene->powershell.tell_nothing();
    std::filesystem::remove(log);
    scene->powershell.tell(L"NoLog", L"capture");
    EXPECT_EQ(thrown_by(call), FAILED);
    scene->powershell.tell(L"Die", L"4294967295 capture");
    EXPECT_EQ(thrown_by(call), FAILED);
    scene->powershell.tell_nothing();
    EXPECT_EQ(THROWN_WITH(call, ReadFile, FALSE, {ERROR_READ_FAULT}), FAILED);
    EXPECT_THAT(
        lines_of(session),
        ElementsAre(
            starting,
            finished(L"1", log),
            starting,
            finished(L"0", log),
            starting,
            finished(L"4294967295", log),
            starting,
            finished(L"0", log)));
    EXPECT_EQ(
        THROWN_WITH(call, GetExitCodeProcess, FALSE, {ERROR_INVALID_HANDLE}),
        "Cannot read user operation result (6)");
    std::filesystem::remove_all(workspace + L"\\output");
    EXPECT_EQ(thrown_by(call), FAILED) << "the folder is not made";
}

TEST_F(PowerShell, is_ended_when_its_time_is_over)
{
    std::vector<UINT> codes;
    kernel_handle ended;
    const intercepted_import<"TerminateProcess", decltype(TerminateProcess)> terminate{
        module_under_test(), [&](HANDLE process, UINT code) -> std::optional<BOOL> {
            codes.push_back(code);
            DuplicateHandle(
                GetCurrentProcess(),
                process,
                GetCurrentProcess(),
                ended.put(),
                0,
                FALSE,
                DUPLICATE_SAME_ACCESS);
            return std::nullopt;
        }};
    const std::wstring marker = workspace + L"\\backup-complete";
    std::ofstream{std::filesystem::path{marker}} << '1';

    scene->powershell.tell(L"Hang", L"capture");
    std::string thrown;
    try {
        run(500);
    } catch (const std::runtime_error& error) {
        thrown = error.what();
    }
    EXPECT_EQ(thrown, TIMED_OUT);
    EXPECT_THAT(codes, ElementsAre(1460U));
    DWORD code = 0;
    GetExitCodeProcess(ended.get(), &code);
    EXPECT_EQ(code, 1460U) << "it is gone when the call returns";
    EXPECT_TRUE(std::filesystem::exists(marker));
    EXPECT_THAT(
        lines_of(session),
        ElementsAre(
            starting,
            L"Controlled upgrade: Operation timed out; AppX service work may still be pending. Retaining "
            L"recovery state at " +
                workspace));
}

TEST_F(PowerShell, counts_as_over_its_time_where_it_cannot_be_waited_for)
{
    std::vector<DWORD> waits;
    kernel_handle started;
    {
        const intercepted_import<"WaitForSingleObject", decltype(WaitForSingleObject)> wait{
            module_under_test(), [&](HANDLE process, DWORD limit) -> std::optional<DWORD> {
                waits.push_back(limit);
                DuplicateHandle(
                    GetCurrentProcess(),
                    process,
                    GetCurrentProcess(),
                    started.put(),
                    0,
                    FALSE,
                    DUPLICATE_SAME_ACCESS);
                return WAIT_FAILED;
            }};
        const test_support::failing_import<"TerminateProcess", decltype(TerminateProcess)> terminate{
            module_under_test(), FALSE, {ERROR_ACCESS_DENIED}};
        EXPECT_THROW(run(), std::runtime_error);
        EXPECT_EQ(terminate.calls(), 1U);
    }
    EXPECT_THAT(waits, ElementsAre(20'000U, 5000U));
    EXPECT_EQ(WaitForSingleObject(started.get(), 10'000), WAIT_OBJECT_0) << "it ended by itself";
}

} // namespace
} // namespace custom_actions
