#include "custom_actions/packages/hidden_process.h"
#include "tests/support/child_process.h"
#include "tests/support/faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::intercepted_import;
using test_support::thrown_by;

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

// What the children below print: a row of digits, in one piece.
std::string digits(std::size_t count)
{
    std::string text(count, '0');
    for (std::size_t i = 0; i != count; ++i) {
        text[i] = static_cast<char>('0' + (i % 10));
    }
    return text;
}

void print(DWORD stream, const std::string& bytes)
{
    DWORD written = 0;
    WriteFile(GetStdHandle(stream), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

// Children that the tests start; each ends here, so that GoogleTest adds nothing to what it printed.
TEST(Fault, DISABLED_prints_much_on_both_streams)
{
    for (int i = 0; i != 200; ++i) {
        print(STD_ERROR_HANDLE, digits(10'000));
        print(STD_OUTPUT_HANDLE, digits(10'000));
    }
    TerminateProcess(GetCurrentProcess(), 0xFFFFFFFE);
}

TEST(Fault, DISABLED_prints_on_standard_error_alone)
{
    print(STD_ERROR_HANDLE, "only here");
    TerminateProcess(GetCurrentProcess(), 0);
}

TEST(Fault, DISABLED_prints_characters_of_several_bytes)
{
    print(STD_OUTPUT_HANDLE, std::string(4094, 'a') + "\xC3\xBC" + "\xE2\x82\xAC");
    TerminateProcess(GetCurrentProcess(), 0);
}

std::wstring child(const wchar_t* name)
{
    return L'"' + test_support::this_program() +
           L"\" --gtest_brief=1 --gtest_also_run_disabled_tests --gtest_filter=Fault.DISABLED_" + name;
}

// Fails the test where the call leaves a handle open.
process_output run(const wchar_t* name)
{
    process_output result;
    EXPECT_EQ(thrown_by([&] { result = run_hidden_process(child(name)); }), "");
    return result;
}

std::wstring widened(const std::string& text)
{
    return {text.begin(), text.end()};
}

TEST(HiddenProcess, gives_back_all_of_both_streams)
{
    const process_output much = run(L"prints_much_on_both_streams");
    std::wstring expected;
    for (int i = 0; i != 200; ++i) {
        expected += widened(digits(10'000));
    }
    EXPECT_EQ(much.exit_code, 0xFFFFFFFEU);
    EXPECT_TRUE(much.output == expected) << much.output.size();
    EXPECT_TRUE(much.error == expected) << much.error.size();

    const process_output error = run(L"prints_on_standard_error_alone");
    EXPECT_EQ(error.exit_code, 0U);
    EXPECT_EQ(error.output, L"");
    EXPECT_EQ(error.error, L"only here");
}

TEST(HiddenProcess, reads_utf8_in_pieces_of_4095_bytes)
{
    const intercepted_import<"ReadFile", decltype(ReadFile)> read{
        module_under_test(), [&](HANDLE, LPVOID, DWORD size, LPDWORD, LPOVERLAPPED) -> std::optional<BOOL> {
            EXPECT_EQ(size, 4095U);
            return std::nullopt;
        }};
    EXPECT_EQ(
        run(L"prints_characters_of_several_bytes").output, std::wstring(4094, L'a') + L"\uFFFD\uFFFD\u20AC")
        << "the character between two pieces is none";
}

TEST(HiddenProcess, is_started_without_a_window_and_with_two_pipes)
{
    const intercepted_import<"CreateProcessW", decltype(CreateProcessW)> start{
        module_under_test(),
        [](LPCWSTR program,
           LPWSTR command_line,
           LPSECURITY_ATTRIBUTES,
           LPSECURITY_ATTRIBUTES,
           BOOL inherit,
           DWORD flags,
           LPVOID environment,
           LPCWSTR directory,
           LPSTARTUPINFOW startup,
           LPPROCESS_INFORMATION) -> std::optional<BOOL> {
            EXPECT_EQ(program, nullptr);
            EXPECT_EQ(command_line, std::wstring{L"absent.exe \"x y\""});
            EXPECT_EQ(inherit, TRUE);
            EXPECT_EQ(flags, 0x08000000U);
            EXPECT_EQ(environment, nullptr);
            EXPECT_EQ(directory, nullptr);
            EXPECT_EQ(startup->dwFlags, 0x100U);
            EXPECT_EQ(startup->hStdInput, nullptr);
            EXPECT_NE(startup->hStdOutput, startup->hStdError);
            return std::nullopt;
        }};
    process_output result;
    EXPECT_EQ(thrown_by([&] { result = run_hidden_process(L"absent.exe \"x y\""); }), "");
    EXPECT_EQ(result.exit_code, 0xFFFFFFFFU);
    EXPECT_EQ(result.output, L"");
    EXPECT_EQ(result.error, L"Failed to launch PowerShell process.");
}

TEST(HiddenProcess, tells_what_it_has_where_a_call_fails)
{
    process_output result;
    const auto call = [&] { result = run_hidden_process(child(L"prints_on_standard_error_alone")); };
    const auto not_started = [&] {
        const bool told = result.exit_code == 0xFFFFFFFFU && result.output.empty() &&
                          result.error == L"Failed to launch PowerShell process.";
        result = {};
        return told;
    };
    for (unsigned nth = 1; nth != 3; ++nth) {
        EXPECT_EQ(THROWN_WITH(call, CreatePipe, FALSE, {ERROR_TOO_MANY_OPEN_FILES, nth}), "");
        EXPECT_TRUE(not_started());
        EXPECT_EQ(THROWN_WITH(call, SetHandleInformation, FALSE, {ERROR_INVALID_HANDLE, nth}), "");
        EXPECT_TRUE(not_started());
    }
    EXPECT_EQ(THROWN_WITH(call, GetExitCodeProcess, FALSE, {ERROR_INVALID_HANDLE}), "");
    EXPECT_EQ(result.exit_code, 0xFFFFFFFFU);
    EXPECT_EQ(result.error, L"only here");
    EXPECT_EQ(THROWN_WITH(call, WaitForSingleObject, WAIT_FAILED, {ERROR_INVALID_HANDLE}), "");
    EXPECT_EQ(result.error, L"only here") << "the pipes are read to their end all the same";
}

} // namespace
} // namespace custom_actions
