#include "custom_actions/processes/inspection_identity.h"
#include "custom_actions/processes/module_pattern.h"
#include "custom_actions/processes/process_inventory.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace custom_actions {
namespace {

using test_support::thrown_by;

constexpr std::array<std::wstring_view, 1> NO_MODULE{L"none"};
constexpr std::array<std::wstring_view, 1> SYSTEM_MODULE{L"kernel32.dll"};

TEST(ModulePattern, matches_the_whole_name)
{
    const auto matches = [](const wchar_t* name) {
        return matches_module_pattern(name, L"Quorbel.WindowOrganizer*.dll");
    };
    EXPECT_TRUE(matches(L"QUORBEL.windoworganizer.x64.dll.DLL"));
    EXPECT_TRUE(matches(L"Quorbel.WindowOrganizer.dll"));
    EXPECT_FALSE(matches(L"Quorbel.WindowOrganizer.dll.bak"));
    EXPECT_FALSE(matches(L"My.Quorbel.WindowOrganizer.dll"));
}

TEST(StrictListing, ignores_an_ended_process_and_throws_if_one_cannot_be_read)
{
    const auto read = [] { process_has_module(GetCurrentProcessId(), NO_MODULE, listing::strict); };
    EXPECT_EQ(THROWN_WITH(read, CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {87}), "");
    EXPECT_EQ(THROWN_WITH(read, CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {24, 1, 2}), "");
    EXPECT_EQ(
        THROWN_WITH(read, CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {24, 1, 3}),
        "Unstable modules for PID " + std::to_string(GetCurrentProcessId()) + " (24)");
}

TEST(Modules, include_those_of_32_bit_programs)
{
    const test_support::intercepted_import<"CreateToolhelp32Snapshot", decltype(CreateToolhelp32Snapshot)>
        snapshots{GetModuleHandleW(nullptr), [](DWORD what, DWORD) -> std::optional<HANDLE> {
                      EXPECT_EQ(what, DWORD{TH32CS_SNAPMODULE | TH32CS_SNAPMODULE32});
                      return std::nullopt;
                  }};
    EXPECT_TRUE(process_has_module(GetCurrentProcessId(), SYSTEM_MODULE, listing::strict));
}

TEST(DebugPrivilege, is_restored_and_not_required)
{
    std::vector<DWORD> attributes;
    const test_support::intercepted_import<"AdjustTokenPrivileges", decltype(AdjustTokenPrivileges)> adjust{
        GetModuleHandleW(nullptr),
        [&](HANDLE, BOOL, PTOKEN_PRIVILEGES wanted, DWORD, PTOKEN_PRIVILEGES, PDWORD) {
            attributes.push_back(wanted->Privileges[0].Attributes);
            SetLastError(ERROR_NOT_ALL_ASSIGNED);
            return std::optional{TRUE};
        }};
    EXPECT_EQ(thrown_by([] { const debug_privilege_scope scope; }), "");
    EXPECT_EQ(attributes, (std::vector<DWORD>{SE_PRIVILEGE_ENABLED, 0}));
}

TEST(HostOwner, is_impersonated_until_the_scope_ends)
{
    const auto impersonate = [] {
        const host_owner_impersonation owner{GetCurrentProcessId(), 0};
        EXPECT_TRUE(test_support::thread_is_impersonating());
    };
    EXPECT_EQ(thrown_by(impersonate), "");
    EXPECT_EXIT(
        THROWN_WITH(impersonate, SetThreadToken, FALSE, {ERROR_CAN_NOT_COMPLETE}),
        testing::ExitedWithCode(ERROR_CAN_NOT_COMPLETE),
        "");
}

TEST(HostOwner, is_elevated_if_the_sessions_token_is_limited)
{
    const test_support::intercepted_import<"GetTokenInformation", decltype(GetTokenInformation)> limited{
        GetModuleHandleW(nullptr),
        [](HANDLE, TOKEN_INFORMATION_CLASS what, LPVOID answer, DWORD, PDWORD) -> std::optional<BOOL> {
            if (what == TokenElevationType) {
                *static_cast<TOKEN_ELEVATION_TYPE*>(answer) = TokenElevationTypeLimited;
            }
            SetLastError(ERROR_NO_SUCH_LOGON_SESSION);
            return what == TokenElevationType;
        }};
    EXPECT_EQ(
        thrown_by([] { const host_owner_impersonation owner{GetCurrentProcessId(), 0}; }),
        "Cannot inspect elevated host owner (1312)");
}

} // namespace
} // namespace custom_actions
