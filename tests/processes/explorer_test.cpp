#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/token.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/played_clock.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::end_explorer;
using test_support::failing_import;
using test_support::import_patch;
using test_support::thrown_by;

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

DWORD own_session()
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return session;
}

std::wstring own_record()
{
    kernel_handle token;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
    return std::to_wstring(own_session()) + L'|' + token_user_sid(token.get());
}

TEST(ExplorerRecord, is_a_session_and_a_user)
{
    const explorer_session read = parse_explorer_record(L"007|S-1-5-21|x");
    EXPECT_EQ(read.session, 7U);
    EXPECT_EQ(read.user_sid, L"S-1-5-21|x") << "everything behind the first bar";

    struct {
        const wchar_t* record;
        const char* message;
    } const cases[]{
        {L"", "Invalid Explorer session data"},
        {L"1", "Invalid Explorer session data"},
        {L"|S-1-5-21", "Invalid Explorer session data"},
        {L" 1|S-1-5-21", "Invalid Explorer session data"},
        {L"-1|S-1-5-21", "Invalid Explorer session data"},
        {L"1a|S-1-5-21", "Invalid Explorer session data"},
        {L"\u0661|S-1-5-21", "Invalid Explorer session data"},
        {L"Unchanged", "Invalid Explorer session data"},
        {L"0|S-1-5-21", "Explorer cannot start in session zero"},
        {L"000|S-1-5-21", "Explorer cannot start in session zero"},
        {L"4294967296|S-1-5-21", "stoul argument out of range"},
        {L"99999999999999999999999|S-1-5-21", "stoul argument out of range"},
    };

    for (const auto& [record, message] : cases) {
        EXPECT_EQ(thrown_by([&] { parse_explorer_record(record); }), message);
    }
    EXPECT_EQ(parse_explorer_record(L"4294967295|").session, 0xFFFFFFFFU);
}

TEST(ExplorerRecord, needs_the_users_token)
{
    const auto record = [] { explorer_session_record(); };
    EXPECT_EQ(
        THROWN_WITH(record, OpenThreadToken, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot determine installer user session (5)")
        << "only a thread without a token leads on to the process's";
    EXPECT_EQ(
        THROWN_WITH(record, OpenProcessToken, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot determine installer user session (5)");
    EXPECT_EQ(
        THROWN_WITH(record, GetTokenInformation, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot read installer session (5)");
}

TEST(UserSid, tells_what_it_could_not_do)
{
    const auto sid = [] { own_record(); };
    EXPECT_EQ(
        THROWN_WITH(sid, GetTokenInformation, FALSE, {ERROR_ACCESS_DENIED, 2}),
        "Cannot read Explorer user identity (5)");
    EXPECT_EQ(
        THROWN_WITH(sid, ConvertSidToStringSidW, FALSE, {ERROR_INVALID_SID}),
        "Cannot format Explorer user identity (1337)");
}

class Explorer : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "ends and starts Explorer: set DISPOSABLE_MACHINE where that may be";
        }
    }

    void TearDown() override
    {
        if (test_support::machine_is_disposable()) {
            end_explorer();
        }
    }
};

TEST_F(Explorer, comes_back_for_the_recorded_user)
{
    end_explorer();
    EXPECT_EQ(explorer_session_record(), L"unchanged") << "none is running";
    EXPECT_EQ(thrown_by([] { restart_explorer_from_record(L"unchanged"); }), "");
    EXPECT_FALSE(explorer_running_in_session(own_session()));

    EXPECT_EQ(thrown_by([] { restart_explorer_from_record(own_record()); }), "");
    EXPECT_TRUE(explorer_running_in_session(own_session()));
    EXPECT_EQ(explorer_session_record(), own_record());
    EXPECT_FALSE(explorer_running_in_session(own_session() + 1));

    const failing_import<"CreateProcessAsUserW", decltype(CreateProcessAsUserW)> fault{
        module_under_test(), FALSE, {ERROR_ACCESS_DENIED}};
    EXPECT_EQ(thrown_by([] { restart_explorer_from_record(own_record()); }), "");
    EXPECT_EQ(fault.calls(), 0U) << "it is there already";
}

UINT WINAPI long_windows_directory(LPWSTR, UINT)
{
    return 260;
}

TEST_F(Explorer, is_not_started_where_anything_fails_and_tells_what)
{
    end_explorer();
    const auto restart = [] { restart_explorer_from_record(own_record()); };
    EXPECT_EQ(
        thrown_by([] { restart_explorer_from_record(std::to_wstring(own_session()) + L"|S-1-5-21-1"); }),
        "Explorer session user changed during installation");
    EXPECT_EQ(
        THROWN_WITH(restart, WTSQueryUserToken, FALSE, {ERROR_NO_TOKEN}),
        "Cannot obtain logged-in Explorer user token (1008)");
    EXPECT_EQ(
        THROWN_WITH(restart, GetWindowsDirectoryW, 0, {ERROR_SUCCESS}), "Cannot resolve Windows directory");
    {
        const import_patch<decltype(GetWindowsDirectoryW)> patch{
            module_under_test(), "GetWindowsDirectoryW", long_windows_directory};
        EXPECT_EQ(thrown_by(restart), "Cannot resolve Windows directory");
    }
    EXPECT_EQ(
        THROWN_WITH(restart, CreateEnvironmentBlock, FALSE, {ERROR_OUTOFMEMORY}),
        "Cannot create Explorer environment (14)");
    EXPECT_EQ(
        THROWN_WITH(restart, CreateProcessAsUserW, FALSE, {ERROR_PRIVILEGE_NOT_HELD}),
        "Cannot restart Explorer as the interactive user (1314)");
    {
        std::optional<TOKEN_ELEVATION_TYPE> elevation;
        const test_support::intercepted_import<"GetTokenInformation", decltype(GetTokenInformation)> patch{
            module_under_test(),
            [&](HANDLE, TOKEN_INFORMATION_CLASS what, LPVOID answer, DWORD, PDWORD) -> std::optional<BOOL> {
                if (what == TokenElevationType && elevation) {
                    *static_cast<TOKEN_ELEVATION_TYPE*>(answer) = *elevation;
                    return TRUE;
                }
                SetLastError(ERROR_ACCESS_DENIED);
                return what == TokenElevationType || what == TokenLinkedToken ? std::optional{FALSE}
                                                                              : std::nullopt;
            }};
        EXPECT_EQ(thrown_by(restart), "Cannot inspect Explorer token elevation (5)");
        elevation = TokenElevationTypeFull;
        EXPECT_EQ(thrown_by(restart), "Cannot obtain filtered Explorer token (5)");
    }
    EXPECT_FALSE(explorer_running_in_session(own_session()));
}

BOOL WINAPI start_nothing(
    HANDLE,
    LPCWSTR program,
    LPWSTR command_line,
    LPSECURITY_ATTRIBUTES,
    LPSECURITY_ATTRIBUTES,
    BOOL inherit,
    DWORD flags,
    LPVOID,
    LPCWSTR directory,
    LPSTARTUPINFOW startup,
    LPPROCESS_INFORMATION started)
{
    EXPECT_EQ(L'"' + std::wstring{program} + L'"', command_line);
    EXPECT_EQ(program, std::wstring{directory} + LR"(\explorer.exe)");
    EXPECT_EQ(inherit, FALSE);
    EXPECT_EQ(flags, 0x400U);
    EXPECT_EQ(startup->lpDesktop, std::wstring{LR"(winsta0\default)"});
    *started = {};
    return TRUE;
}

TEST_F(Explorer, is_waited_for_ten_seconds)
{
    end_explorer();
    const test_support::played_clock clock{module_under_test()};
    const import_patch<decltype(CreateProcessAsUserW)> start{
        module_under_test(), "CreateProcessAsUserW", start_nothing};
    EXPECT_EQ(
        thrown_by([] { restart_explorer_from_record(own_record()); }),
        "Explorer did not return after launch");
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(40, 250));
}

} // namespace
} // namespace custom_actions
