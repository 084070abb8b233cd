#include "custom_actions/common/system_directory.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::fail_with;
using test_support::thrown_by;
using test_support::thrown_with;

TEST(Context, is_parsed_from_valid_data_only)
{
    const std::wstring guid = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    const context loaded =
        load_context(format_context(L"C:/It's [1] \u00C4\u4E2D/", 4294967295, L"S-1-5-21-1-2-3-1001", guid));
    EXPECT_EQ(loaded.product_directory, L"C:\\It's [1] \u00C4\u4E2D");
    EXPECT_EQ(loaded.workspace, windows_directory() + LR"(\Temp\QBL-upgrade-)" + guid);
    EXPECT_EQ(loaded.session_id, 4294967295U);
    EXPECT_EQ(loaded.user_sid, L"S-1-5-21-1-2-3-1001");

    const std::string invalid = "Invalid upgrade transaction data";
    const std::string required = "An interactive user and absolute product directory are required";
    const std::pair<std::wstring, std::string> rows[]{
        {L"C:\\a|b|1|S-1-5-18|" + guid, invalid},
        {L"C:\\a||S-1-5-18|" + guid, invalid},
        {L"C:\\a|-1|S-1-5-18|" + guid, invalid},
        {L"C:\\a|4294967296|S-1-5-18|" + guid, "stoul argument out of range"},
        {L"C:\\a|0|S-1-5-18|" + guid, required},
        {L"a\\b|1|S-1-5-18|" + guid, required},
        {L"C:\\a|1|nobody|" + guid, "Invalid upgrade user SID (1337)"},
        {L"C:\\a|1|S-1-5-18|{}", invalid},
        {LR"(C:\a|1|S-1-5-18|..\..\..\..\..\..\..\..\..\..\..\Suite)", invalid}};
    for (const auto& [data, refusal] : rows) {
        const auto load = [&] { load_context(data); };
        EXPECT_EQ(thrown_by(load), refusal) << testing::PrintToString(data);
    }
}

TEST(MaintenanceKey, is_live_while_its_own_process_runs)
{
    const test_support::registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const auto expect = [](bool live) { return [live] { EXPECT_EQ(guard_is_live(), live); }; };
    upgrade_guard(true);
    thrown_with("OpenProcess", fail_with(0, ERROR_ACCESS_DENIED), expect(true));
    thrown_with("OpenProcess", fail_with(0, ERROR_INVALID_PARAMETER), expect(false));
    thrown_with(
        "WaitForSingleObject", fail_with(WAIT_OBJECT_0, 0), expect(false)); // ended, but still open somewhere
    constexpr const wchar_t* key = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
    test_support::plant_value(HKEY_LOCAL_MACHINE, key, L"Created", std::string(8, '\1'), REG_QWORD);
    EXPECT_FALSE(guard_is_live()) << "the id belongs to another process now";
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key, L"Created");
    EXPECT_FALSE(guard_is_live()) << "the key is half written";
    upgrade_guard(false);
    EXPECT_EQ(thrown_by([] { upgrade_guard(false); }), "") << "already removed";
}

} // namespace
} // namespace custom_actions::controlled_upgrade
