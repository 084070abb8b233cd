#include "custom_actions/processes/inspection_identity.h"
#include "custom_actions/processes/process_inventory.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace custom_actions {
namespace {

using test_support::fail_with;
using test_support::thrown_with;

TEST(StrictListing, ignores_an_ended_process_and_throws_if_one_cannot_be_read)
{
    static constexpr std::array<std::wstring_view, 1> module{L"none"};
    const auto read = [] { process_has_module(GetCurrentProcessId(), module, listing::strict); };
    const std::string unstable =
        "Unstable modules for PID " + std::to_string(GetCurrentProcessId()) + " (24)";
    EXPECT_EQ(thrown_with("CreateToolhelp32Snapshot", fail_with(~test_support::word{0}, 87), read), "");
    EXPECT_EQ(thrown_with("CreateToolhelp32Snapshot", fail_with(~test_support::word{0}, 24, 1, 2), read), "");
    EXPECT_EQ(
        thrown_with("CreateToolhelp32Snapshot", fail_with(~test_support::word{0}, 24, 1, 3), read), unstable);
}

TEST(HostOwner, is_impersonated_with_all_rights_and_never_left_impersonated)
{
    const auto impersonate = [] { const host_owner_impersonation owner{GetCurrentProcessId(), 0}; };
    EXPECT_EXIT(
        thrown_with("SetThreadToken", fail_with(FALSE, ERROR_CAN_NOT_COMPLETE), impersonate),
        testing::ExitedWithCode(ERROR_CAN_NOT_COMPLETE),
        "");
    const test_support::import_hook limited{
        GetModuleHandleW(nullptr), "GetTokenInformation", [](HANDLE, int what, DWORD* answer) {
            SetLastError(ERROR_NO_SUCH_LOGON_SESSION); // if the linked token is asked for
            if (what == TokenElevationType) {
                *answer = TokenElevationTypeLimited;
            }
            return what == TokenElevationType;
        }};
    EXPECT_EQ(test_support::thrown_by(impersonate), "Cannot inspect elevated host owner (1312)");
}

} // namespace
} // namespace custom_actions
