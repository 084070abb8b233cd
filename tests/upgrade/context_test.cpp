#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/workspace.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/toy_suite.h"

#include <aclapi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <wtsapi32.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

using test_support::intercepted_import;
using test_support::thrown_by;

constexpr const wchar_t* SID = L"S-1-5-21-1-2-3-1001";
constexpr const wchar_t* GUID_TEXT = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
constexpr const char* INVALID = "Invalid upgrade transaction data";
constexpr const char* INVALID_SID = "Invalid upgrade user SID";
constexpr const char* REQUIRED = "An interactive user and absolute product directory are required";
constexpr const char* RANGE = "stoul argument out of range";

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

std::string refusal(const std::wstring& data)
{
    try {
        load_context(data);
        return "";
    } catch (const std::exception& error) {
        return error.what();
    }
}

TEST(Context, is_read_from_its_data)
{
    const std::wstring rest = std::wstring{L"|4294967295|"} + SID + L"|" + GUID_TEXT;
    const std::wstring folder = L"C:\\It's [1] \u00C4\u4E2D";
    for (const std::wstring& told : {folder, L"C:/a/../" + folder.substr(3) + L"/"}) {
        const context loaded = load_context(told + rest);
        EXPECT_EQ(loaded.product_directory, folder);
        EXPECT_EQ(loaded.workspace, std::wstring{LR"(C:\windows\Temp\QBL-upgrade-)"} + GUID_TEXT);
        EXPECT_EQ(loaded.session_id, 4294967295U);
        EXPECT_EQ(loaded.user_sid, SID);
        EXPECT_EQ(format_context(told, 4294967295U, SID, GUID_TEXT), told + rest);
    }
    const auto load = [&] { load_context(folder + rest); };
    EXPECT_EQ(THROWN_WITH(load, GetWindowsDirectoryW, 0, {5}), "Cannot resolve Windows directory");
}

std::vector<std::wstring> split(const std::wstring& text, wchar_t separator)
{
    std::vector<std::wstring> fields{L""};
    for (const wchar_t unit : text) {
        unit == separator ? void(fields.emplace_back()) : fields.back().push_back(unit);
    }
    return fields;
}

// What the rules say of this data, the first objection first. (Nothing here lies on a share.)
std::string told_refusal(const std::wstring& data)
{
    const std::vector<std::wstring> fields = split(data, L'|');
    const auto only = [](const std::wstring& text, const std::wstring& allowed) {
        return std::ranges::all_of(
            text, [&](wchar_t unit) { return allowed.find(unit) != std::wstring::npos; });
    };
    if (fields.size() != 4 || fields[1].empty() || !only(fields[1], L"0123456789") ||
        fields[3].size() != 38 || !only(fields[3], L"{}-0123456789ABCDEFabcdef")) {
        return INVALID;
    }
    const std::wstring number =
        fields[1].substr(std::min(fields[1].find_first_not_of(L'0'), fields[1].size()));
    if (number.size() > 10 || (number.size() == 10 && number > L"4294967295")) {
        return RANGE;
    }
    PSID sid = nullptr;
    if (!ConvertStringSidToSidW(fields[2].c_str(), &sid)) {
        return INVALID_SID;
    }
    LocalFree(sid);
    const bool absolute = fields[0].size() > 2 && only(fields[0].substr(0, 1), L"aCdF") &&
                          fields[0][1] == L':' && only(fields[0].substr(2, 1), L"\\/");
    return number.empty() || !absolute ? REQUIRED : "";
}

TEST(Context, is_refused_exactly_where_the_rules_say_so)
{
    // Of each field, those in order first.
    static constexpr std::array<const wchar_t*, 4> pieces{
        L"C:\\Apps\\Suite;C:/Apps/;d:\\\u00C4 '[x]';Apps\\Suite;C:Apps;\\Apps;",
        L"1;42;4294967295;0000000000007;4294967296;99999999999999999999999;0;000;12a;-1; 1;",
        L"S-1-5-21-1-2-3-1001;S-1-5-18;BA;S-1;S-1-5-;s-1-5-18;1-5-18;S-1-5-21-x",
        L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0};}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}}};"
        L"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0;{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1FG};"};
    std::vector<std::vector<std::wstring>> fields;
    std::ranges::transform(pieces, std::back_inserter(fields), [](auto text) { return split(text, L';'); });
    std::mt19937 random{8}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts every time
    std::map<std::string, unsigned> met;
    const DWORD handles = test_support::open_handles();
    for (int i = 0; i != 100'000; ++i) {
        std::wstring data;
        for (const auto& choices : fields) {
            data += choices[std::min(random() % choices.size(), random() % choices.size())];
            data += L'|';
        }
        data.resize(data.size() - (random() % 50 == 0 ? 0 : 1));
        if (random() % 4 == 0 && !data.empty()) { // and one character wrong
            const std::size_t at = random() % data.size();
            data.replace(at, random() % 2, random() % 2, L"|/\\:.0aF{-\u00E9\u4E2D\n"[random() % 13]);
        }
        const std::string told = told_refusal(data);
        ASSERT_EQ(refusal(data), told) << testing::PrintToString(data);
        ++met[told];
    }
    EXPECT_EQ(test_support::open_handles(), handles);
    for (const char* told : {"", INVALID, RANGE, INVALID_SID, REQUIRED}) {
        EXPECT_GT(met[told], 1000U) << told;
    }
}

std::wstring own_sid()
{
    kernel_handle token;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
    return token_user_sid(token.get());
}

TEST(InteractiveUser, has_to_be_the_same_and_comes_without_elevation)
{
    context own{.product_directory = {}, .workspace = {}, .session_id = 0, .user_sid = own_sid()};
    ProcessIdToSessionId(GetCurrentProcessId(), &own.session_id);
    const auto ask = [&] {
        const kernel_handle token = interactive_user_token(own);
        EXPECT_NE(token_elevation_type(token.get()), TokenElevationTypeFull);
        EXPECT_EQ(token_user_sid(token.get()), own.user_sid);
    };
    EXPECT_EQ(thrown_by(ask), "");
    EXPECT_EQ(
        THROWN_WITH(ask, WTSQueryUserToken, FALSE, {ERROR_NO_TOKEN}),
        "Cannot obtain original interactive user token (1008)");
    EXPECT_EQ(
        THROWN_WITH(ask, GetTokenInformation, FALSE, {ERROR_ACCESS_DENIED, 3}),
        "Cannot inspect interactive token (5)");
    if (token_elevation_type(GetCurrentProcessToken()) == TokenElevationTypeFull) {
        EXPECT_EQ(
            THROWN_WITH(ask, GetTokenInformation, FALSE, {ERROR_NO_SUCH_LOGON_SESSION, 4}),
            "Cannot obtain unelevated interactive token (1312)");
    }
    for (const std::wstring& other : {L"s" + own.user_sid.substr(1), own.user_sid + L"1", std::wstring{}}) {
        own.user_sid = other;
        EXPECT_EQ(thrown_by(ask), "Interactive user changed during upgrade");
    }
}

class Workspace : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove_all(upgrade.workspace); }

    void TearDown() override { std::filesystem::remove_all(upgrade.workspace); }

    context upgrade{
        .product_directory = {},
        .workspace =
            std::filesystem::temp_directory_path() / (L"upgrade-" + std::to_wstring(GetCurrentProcessId())),
        .session_id = 1,
        .user_sid = own_sid()};
};

std::wstring access_text(PSECURITY_DESCRIPTOR descriptor)
{
    wchar_t* text = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorW(
        descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr);
    const local_memory owner{text};
    return text == nullptr ? L"" : text;
}

std::wstring access_on_disk(const std::wstring& path)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    GetNamedSecurityInfoW(
        path.c_str(),
        SE_FILE_OBJECT,
        DACL_SECURITY_INFORMATION,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        &descriptor);
    const local_memory owner{descriptor};
    return access_text(descriptor);
}

TEST_F(Workspace, is_new_and_closed_to_others)
{
    std::wstring asked;
    const intercepted_import<"CreateDirectoryW", decltype(CreateDirectoryW)> watch{
        module_under_test(), [&](LPCWSTR, LPSECURITY_ATTRIBUTES attributes) -> std::optional<BOOL> {
            EXPECT_EQ(attributes->nLength, 24U);
            EXPECT_EQ(attributes->bInheritHandle, FALSE);
            asked = access_text(attributes->lpSecurityDescriptor);
            return std::nullopt;
        }};
    const std::wstring everybody_else = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;";
    // What Wine keeps of it on a disk of another system: nobody but the owner.
    const std::wstring mode_bits = L"D:(A;OICI;FA;;;SY)(A;OICI;FA;;;" + upgrade.user_sid + L")";
    const auto create = [&](const std::wstring& path, user_access access) {
        return thrown_by([&] { create_secure_directory(path, upgrade.user_sid, access); });
    };
    EXPECT_EQ(create(upgrade.workspace, user_access::read), "");
    EXPECT_EQ(asked, everybody_else + L"GXGR;;;" + upgrade.user_sid + L")");
    EXPECT_THAT(
        access_on_disk(upgrade.workspace),
        testing::AnyOf(everybody_else + L"0x1200a9;;;" + upgrade.user_sid + L")", mode_bits));
    EXPECT_EQ(create(upgrade.workspace + L"\\output", user_access::full), "");
    EXPECT_EQ(asked, everybody_else + L"FA;;;" + upgrade.user_sid + L")");
    EXPECT_THAT(access_on_disk(upgrade.workspace + L"\\output"), testing::AnyOf(asked, mode_bits));

    EXPECT_EQ(create(upgrade.workspace, user_access::read), "Cannot create unique recovery directory (183)");
    EXPECT_EQ(
        create(upgrade.workspace + L"\\a\\b", user_access::read),
        "Cannot create unique recovery directory (3)");
    upgrade.user_sid = L"nobody";
    EXPECT_THAT(
        create(upgrade.workspace + L"\\other", user_access::read),
        testing::StartsWith("Cannot secure recovery directory"));
    EXPECT_FALSE(std::filesystem::exists(upgrade.workspace + L"\\other"));
}

TEST_F(Workspace, keeps_markers)
{
    EXPECT_FALSE(has_marker(upgrade, marker::COMMITTED)) << "there is no workspace yet";
    std::filesystem::create_directory(upgrade.workspace);
    const auto write = [&] { write_marker(upgrade, marker::COMMITTED); };
    EXPECT_FALSE(has_marker(upgrade, marker::COMMITTED));
    EXPECT_EQ(thrown_by(write) + thrown_by(write), "");
    EXPECT_TRUE(has_marker(upgrade, marker::COMMITTED));
    std::ifstream file{std::filesystem::path{upgrade.workspace} / L"committed", std::ios::binary};
    std::string content;
    std::getline(file, content, '\0');
    EXPECT_EQ(content, "1");

    const std::string message = "Cannot persist upgrade recovery state";
    EXPECT_EQ(THROWN_WITH(write, CreateFileW, INVALID_HANDLE_VALUE, {ERROR_ACCESS_DENIED}), message + " (5)");
    EXPECT_EQ(THROWN_WITH(write, WriteFile, FALSE, {ERROR_DISK_FULL}), message + " (112)");
    EXPECT_EQ(THROWN_WITH(write, WriteFile, TRUE, {ERROR_DISK_FULL}), message + " (112)")
        << "nothing written";
    std::filesystem::create_directory(upgrade.workspace + L"\\in the way");
    EXPECT_EQ(thrown_by([&] { write_marker(upgrade, L"in the way"); }), message + " (5)");
    EXPECT_EQ(
        THROWN_WITH(
            [&] { has_marker(upgrade, marker::COMMITTED); },
            GetFileAttributesW,
            INVALID_FILE_ATTRIBUTES,
            {ERROR_ACCESS_DENIED}),
        "Cannot read upgrade recovery state (5)");
}

constexpr const wchar_t* KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";

template <class Number>
std::string bytes_of(Number number)
{
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

ULONGLONG created(DWORD process)
{
    const kernel_handle opened{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process)};
    FILETIME time{};
    FILETIME other{};
    GetProcessTimes(opened.get(), &time, &other, &other, &other);
    return ULARGE_INTEGER{{time.dwLowDateTime, time.dwHighDateTime}}.QuadPart;
}

class MaintenanceKey : public testing::Test {
protected:
    void plant(DWORD process, ULONGLONG time)
    {
        test_support::plant_value(HKEY_LOCAL_MACHINE, KEY, L"Process", bytes_of(process), REG_DWORD);
        test_support::plant_value(HKEY_LOCAL_MACHINE, KEY, L"Created", bytes_of(time), REG_QWORD);
    }

    bool live()
    {
        bool answer = false;
        EXPECT_EQ(thrown_by([&] { answer = guard_is_live(); }), "");
        return answer;
    }

    test_support::registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const DWORD own = GetCurrentProcessId();
};

TEST_F(MaintenanceKey, is_taken_from_whoever_has_it_and_released)
{
    plant(4, 5); // another's, which is overwritten
    EXPECT_EQ(thrown_by([] { upgrade_guard(true); }), "");
    EXPECT_TRUE(live());
    EXPECT_THAT(test_support::planted_value(HKEY_LOCAL_MACHINE, KEY, L"Created"), bytes_of(created(own)));
    EXPECT_EQ(thrown_by([] { upgrade_guard(false); }), "");
    EXPECT_FALSE(live());
    EXPECT_EQ(thrown_by([] { upgrade_guard(false); }), "") << "it is gone already";
}

TEST_F(MaintenanceKey, is_live_while_its_process_runs)
{
    EXPECT_FALSE(live());
    test_support::plant_value(HKEY_LOCAL_MACHINE, KEY, L"Process", bytes_of(own), REG_DWORD);
    EXPECT_FALSE(live()) << "half written";
    test_support::plant_value(HKEY_LOCAL_MACHINE, KEY, L"Created", bytes_of(created(own)), REG_BINARY);
    EXPECT_FALSE(live()) << "of another type";
    plant(own, created(own) + 1);
    EXPECT_FALSE(live()) << "its id was given to another process";
    plant(0, created(own));
    EXPECT_FALSE(live());
    test_support::plant_value(HKEY_LOCAL_MACHINE, KEY, L"Process", bytes_of(own), REG_BINARY);
    EXPECT_FALSE(live());

    plant(own, created(own));
    EXPECT_TRUE(live());
    const auto expect = [](bool expected) { return [expected] { EXPECT_EQ(guard_is_live(), expected); }; };
    EXPECT_EQ(THROWN_WITH(expect(true), OpenProcess, nullptr, {ERROR_ACCESS_DENIED}), "");
    EXPECT_EQ(THROWN_WITH(expect(false), OpenProcess, nullptr, {ERROR_INVALID_PARAMETER}), "");
    plant(own, 1);
    EXPECT_EQ(THROWN_WITH(expect(true), GetProcessTimes, FALSE, {ERROR_ACCESS_DENIED}), "");
}

TEST_F(MaintenanceKey, is_stale_once_its_process_has_ended)
{
    if (!test_support::machine_is_disposable()) {
        GTEST_SKIP() << "starts a program with the suite's name: set DISPOSABLE_MACHINE where that may be";
    }
    const test_support::toy_process owner{L"Quorbel.exe"};
    const kernel_handle ended{OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, owner.id())};
    plant(owner.id(), created(owner.id()));
    EXPECT_TRUE(live());
    TerminateProcess(ended.get(), 0);
    WaitForSingleObject(ended.get(), 5000);
    EXPECT_FALSE(live()) << "though it can still be opened";
}

TEST_F(MaintenanceKey, tells_of_every_call_that_fails)
{
    const auto take = [] { upgrade_guard(true); };
    EXPECT_EQ(
        THROWN_WITH(take, RegCreateKeyExW, ERROR_ACCESS_DENIED, {0}), "Cannot establish upgrade guard (5)");
    EXPECT_EQ(
        THROWN_WITH(take, GetProcessTimes, FALSE, {ERROR_ACCESS_DENIED}), "Cannot persist upgrade guard (5)");
    for (const unsigned nth : {1U, 2U}) {
        EXPECT_EQ(
            THROWN_WITH(take, RegSetValueExW, ERROR_DISK_FULL, {0, nth}),
            "Cannot persist upgrade guard (112)");
        EXPECT_FALSE(live());
    }
    EXPECT_EQ(
        THROWN_WITH([] { upgrade_guard(false); }, RegDeleteKeyExW, ERROR_ACCESS_DENIED, {0}),
        "Cannot release upgrade guard (5)");
}

} // namespace
} // namespace custom_actions::controlled_upgrade
