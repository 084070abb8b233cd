#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::plant_value;
using test_support::planted_value;
using test_support::thrown_by;

TEST(Context, is_read_from_its_data_and_nothing_else)
{
    constexpr const wchar_t* guid = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    constexpr const wchar_t* folder = L"C:\\It's [1] \u00C4\u4E2D";
    constexpr const wchar_t* sid = L"S-1-5-21-1-2-3-1001";
    const context loaded = load_context(format_context(std::wstring{folder} + L"/", 4294967295, sid, guid));
    EXPECT_EQ(loaded.product_directory, folder);
    EXPECT_EQ(loaded.workspace, std::wstring{LR"(C:\windows\Temp\QBL-upgrade-)"} + guid);
    EXPECT_EQ(loaded.session_id, 4294967295U);
    EXPECT_EQ(loaded.user_sid, sid);

    constexpr const char* invalid = "Invalid upgrade transaction data";
    constexpr const char* required = "An interactive user and absolute product directory are required";

    struct {
        const wchar_t* folder;
        const wchar_t* session;
        const wchar_t* sid;
        const wchar_t* transaction;
        const char* refusal;
    } const cases[]{
        {folder, L"007", sid, guid, ""},
        {folder, L"1", sid, L"}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}", ""},
        {L"", L"1", sid, guid, required},
        {LR"(Apps\Suite)", L"1", sid, guid, required},
        {LR"(C:Suite)", L"1", sid, guid, required},
        {LR"(\Suite)", L"1", sid, guid, required},
        {L"C:\\a|b", L"1", sid, guid, invalid},
        {folder, L"", sid, guid, invalid},
        {folder, L"-1", sid, guid, invalid},
        {folder, L"0x1", sid, guid, invalid},
        {folder, L"0", sid, guid, required},
        {folder, L"4294967296", sid, guid, "stoul argument out of range"},
        {folder, L"1", L"nobody", guid, "Invalid upgrade user SID (1337)"},
        {folder, L"1", sid, L"", invalid},
        {folder, L"1", sid, L"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0", invalid},
        {folder, L"1", sid, L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}|", invalid},
        {folder, L"1", sid, LR"(..\..\..\..\..\..\..\..\..\..\..\Suite)", invalid},
    };

    for (const auto& [told_folder, session, told_sid, transaction, refusal] : cases) {
        const std::wstring data =
            told_folder + (L'|' + std::wstring{session}) + L'|' + told_sid + L'|' + transaction;
        EXPECT_EQ(thrown_by([&] { load_context(data); }), refusal) << testing::PrintToString(data);
    }
    EXPECT_EQ(thrown_by([] { load_context(L""); }), invalid);
}

TEST(MaintenanceKey, is_live_while_its_process_runs)
{
    constexpr const wchar_t* path = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
    const test_support::registry_sandbox machine{HKEY_LOCAL_MACHINE};
    EXPECT_FALSE(guard_is_live());
    EXPECT_EQ(
        THROWN_WITH([] { upgrade_guard(true); }, RegSetValueExW, ERROR_DISK_FULL, {0, 2}),
        "Cannot persist upgrade guard (112)");
    EXPECT_FALSE(guard_is_live()) << "half written";

    struct {
        const wchar_t* name;
        std::string bytes;
        DWORD type;
    } const changes[]{
        {L"Process", std::string(4, '\0'), REG_DWORD},
        {L"Process", std::string(4, '\1'), REG_DWORD},
        {L"Process", "", REG_BINARY},                  // nothing: as it is
        {L"Created", std::string(8, '\1'), REG_QWORD}, // the id was given to another process
        {L"Created", "", REG_BINARY},
    };

    for (const auto& [name, bytes, type] : changes) {
        upgrade_guard(true); // whoever had it
        EXPECT_TRUE(guard_is_live());
        const std::string taken = planted_value(HKEY_LOCAL_MACHINE, path, name).value();
        plant_value(HKEY_LOCAL_MACHINE, path, name, bytes.empty() ? taken : bytes, type);
        EXPECT_FALSE(guard_is_live());
    }
    upgrade_guard(true);
    const auto expect = [](bool expected) { return [expected] { EXPECT_EQ(guard_is_live(), expected); }; };
    THROWN_WITH(expect(true), OpenProcess, nullptr, {ERROR_ACCESS_DENIED});
    THROWN_WITH(expect(false), OpenProcess, nullptr, {ERROR_INVALID_PARAMETER});
    THROWN_WITH(expect(true), GetProcessTimes, FALSE, {ERROR_ACCESS_DENIED});
    THROWN_WITH(expect(false), WaitForSingleObject, WAIT_OBJECT_0, {0}); // ended, and somebody has it open
    upgrade_guard(false);
    EXPECT_FALSE(guard_is_live());
    EXPECT_EQ(thrown_by([] { upgrade_guard(false); }), "") << "it is gone already";
}

} // namespace
} // namespace custom_actions::controlled_upgrade
