// prepare_controlled_upgrade in the built library.

#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/upgrade/context.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <objbase.h>
#include <sddl.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::installer_call;
using test_support::intercepted_import;
using test_support::posted_message;
using test_support::toy_process;
using testing::ElementsAre;

constexpr const wchar_t* PRODUCT = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* COMPONENT = L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}";
constexpr const char* UNRESOLVED = "Cannot resolve the installed product directory";
constexpr const char* NOBODY = "Sign into the desktop before upgrading Quorbel";

class UpgradeScheduling : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "ends and starts Explorer: set DISPOSABLE_MACHINE where that may be";
        }
        // With its first exception the library's runtime opens handles of its own.
        library.call("prepare_controlled_upgrade", 0);
        test_support::end_explorer();
        explorer.emplace(L"explorer.exe", L"--window=none");
        session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
        install(LR"(C:\Apps\Suite\Quorbel.EXE)");
    }

    void install(const std::wstring& key_path) { session.install_component(PRODUCT, COMPONENT, key_path); }

    // Runs the action and returns why it refused.
    std::string refusal()
    {
        const std::size_t before = session.messages().size();
        UINT result = 0;
        EXPECT_EQ(
            test_support::thrown_by(
                [&] { result = library.call("prepare_controlled_upgrade", session.handle()); }),
            "");
        const std::vector<posted_message> posted(
            session.messages().begin() + static_cast<std::ptrdiff_t>(before), session.messages().end());
        if (posted.empty()) {
            EXPECT_EQ(result, 0U);
            return "";
        }
        EXPECT_EQ(result, 1603U);
        const std::wstring message = posted.at(0).text.substr(20);
        EXPECT_THAT(
            posted,
            ElementsAre(
                posted_message{0x04000000, L"Controlled upgrade: " + message},
                posted_message{0x01000000, L"Quorbel upgrade: " + message}));
        return {message.begin(), message.end()};
    }

    // What the phases were handed, which is the same for all.
    std::wstring handed()
    {
        EXPECT_EQ(refusal(), "");
        const std::wstring data = session.property(L"begin_controlled_upgrade").value_or(L"");
        for (const wchar_t* phase :
             {L"install_upgrade_packages", L"rollback_controlled_upgrade", L"finish_controlled_upgrade"}) {
            EXPECT_EQ(session.property(phase), data);
        }
        return data;
    }

    test_support::loaded_library library;
    test_support::scripted_session session{library.module()};
    std::optional<toy_process> explorer;
};

// The library's calls to `function` fail while the action runs; why it refused.
#define REFUSAL_WITH(function, ...)                                                                          \
    ([&] {                                                                                                   \
        const test_support::failing_import<#function, decltype(function)> fault{                             \
            library.module(), __VA_ARGS__};                                                                  \
        return refusal();                                                                                    \
    }())

TEST_F(UpgradeScheduling, pins_the_folder_and_hands_the_same_to_all_phases)
{
    struct {
        const wchar_t* key_path;
        const wchar_t* pinned;
    } const cases[]{
        {LR"(C:\Apps\Suite\Quorbel.EXE)", LR"(C:\Apps\Suite\)"},
        {LR"(C:\It's [1].exe\\Quorbel.exe)", LR"(C:\It's [1].exe\)"},
        {LR"(C:\Apps\Suite)", LR"(C:\Apps\Suite\)"},
        {LR"(C:\Apps\Suite.exe\)", LR"(C:\Apps\Suite.exe\)"},
        {LR"(C:\Apps\.exe)", LR"(C:\Apps\.exe\)"},
        {LR"(C:\Quorbel.exe)", LR"(C:\)"},
    };

    const std::wstring user = explorer_session_record();
    std::wstring last_transaction;
    for (const auto& [key_path, pinned] : cases) {
        install(key_path);
        const std::wstring data = handed();
        EXPECT_EQ(session.property(L"INSTALLFOLDER"), pinned);
        EXPECT_TRUE(data.starts_with(pinned + (L'|' + user) + L"|{")) << testing::PrintToString(data);
        const std::wstring transaction = data.substr(data.size() - 38);
        EXPECT_NE(transaction, last_transaction);
        EXPECT_EQ(transaction.find_first_of(L"abcdef"), std::wstring::npos);
        EXPECT_TRUE(controlled_upgrade::load_context(data).workspace.ends_with(transaction));
        last_transaction = transaction;
    }
}

TEST_F(UpgradeScheduling, takes_the_owner_of_the_first_explorer_in_the_session)
{
    const toy_process second{L"explorer.exe", L"--window=none"};
    const process_list listed = find_processes_by_image({L"explorer.exe"}, listing::strict);
    ASSERT_EQ(listed.size(), 2U);
    process_list opened;
    const intercepted_import<"OpenProcess", decltype(OpenProcess)> watch{
        library.module(), [&](DWORD access, BOOL, DWORD process) -> std::optional<HANDLE> {
            EXPECT_EQ(access, DWORD{PROCESS_QUERY_LIMITED_INFORMATION});
            opened.push_back(process);
            return std::nullopt;
        }};
    handed();
    {
        const intercepted_import<"ProcessIdToSessionId", decltype(ProcessIdToSessionId)> elsewhere{
            library.module(), [&](DWORD process, DWORD* found) -> std::optional<BOOL> {
                *found = 4711;
                return process == listed[0] ? std::optional{TRUE} : std::nullopt;
            }};
        handed();
    }
    EXPECT_EQ(opened, listed);

    unsigned sids = 0;
    const intercepted_import<"ConvertSidToStringSidW", decltype(ConvertSidToStringSidW)> other_owner{
        library.module(), [&](PSID, LPWSTR* text) -> std::optional<BOOL> {
            if (++sids != 2) { // the first is of whoever installs
                return std::nullopt;
            }
            *text = static_cast<wchar_t*>(LocalAlloc(LPTR, 20));
            std::ranges::copy(std::wstring{L"S-1-5-18"}, *text);
            return TRUE;
        }};
    EXPECT_EQ(controlled_upgrade::load_context(handed()).user_sid, L"S-1-5-18");
}

TEST_F(UpgradeScheduling, refuses_what_it_cannot_do)
{
    session.set_property(L"RollbackDisabled", L"1");
    EXPECT_EQ(refusal(), "Controlled upgrade requires Windows Installer rollback");
    session.set_property(L"RollbackDisabled", L"");
    const std::wstring product = PRODUCT;
    for (const std::wstring& detected : {std::wstring{}, product + L";" + product, product.substr(1)}) {
        session.set_property(L"WIX_UPGRADE_DETECTED", detected);
        EXPECT_EQ(refusal(), "Expected one installed product to upgrade");
    }
    session.set_property(L"WIX_UPGRADE_DETECTED", L"{22222222-2222-3333-4444-555555555555}");
    EXPECT_EQ(refusal(), UNRESOLVED);
    session.set_property(L"WIX_UPGRADE_DETECTED", PRODUCT);
    for (const int state : {INSTALLSTATE_SOURCE, INSTALLSTATE_ABSENT, INSTALLSTATE_MOREDATA}) {
        session.fail(installer_call::get_component_path, static_cast<UINT>(state));
        EXPECT_EQ(refusal(), UNRESOLVED);
    }
    session.fail(installer_call::set_target_path);
    EXPECT_EQ(refusal(), "Cannot preserve installed product directory");
    for (const unsigned nth : {1U, 2U, 3U}) {
        session.fail(installer_call::get_property, ERROR_INVALID_HANDLE, nth);
        EXPECT_EQ(refusal(), "Cannot read installer property");
    }
    install(LR"(C:\Apps|Suite)");
    EXPECT_EQ(refusal(), "Invalid upgrade transaction data");
    install(LR"(Apps\Suite)");
    EXPECT_EQ(refusal(), "An interactive user and absolute product directory are required");
    install(LR"(C:\Apps\Suite)");
    EXPECT_EQ(session.property(L"begin_controlled_upgrade"), std::nullopt);

    for (const unsigned nth : {1U, 2U, 3U, 4U}) {
        session.fail(installer_call::set_property, ERROR_FUNCTION_FAILED, nth);
        EXPECT_EQ(refusal(), "Cannot schedule upgrade recovery");
    }
    EXPECT_TRUE(session.property(L"rollback_controlled_upgrade")) << "what was set stays";
    EXPECT_FALSE(session.property(L"finish_controlled_upgrade"));
}

TEST_F(UpgradeScheduling, refuses_where_the_user_or_the_transaction_is_unknown)
{
    constexpr const char* uncaptured = "Cannot capture original Explorer user";
    EXPECT_EQ(REFUSAL_WITH(OpenProcess, nullptr, {ERROR_ACCESS_DENIED}), uncaptured);
    EXPECT_EQ(REFUSAL_WITH(OpenProcessToken, FALSE, {ERROR_ACCESS_DENIED, 2}), uncaptured);
    EXPECT_EQ(
        REFUSAL_WITH(ConvertSidToStringSidW, FALSE, {ERROR_INVALID_SID, 2}),
        "Cannot format Explorer user identity");
    EXPECT_EQ(
        REFUSAL_WITH(ProcessIdToSessionId, FALSE, {ERROR_ACCESS_DENIED, 2, 0}),
        "Cannot identify original interactive user");
    EXPECT_EQ(REFUSAL_WITH(ProcessIdToSessionId, FALSE, {ERROR_ACCESS_DENIED, 1, 0}), NOBODY);
    EXPECT_EQ(
        REFUSAL_WITH(OpenThreadToken, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot determine installer user session");
    EXPECT_EQ(REFUSAL_WITH(CoCreateGuid, E_FAIL, {0}), "Cannot identify upgrade transaction");
    EXPECT_EQ(REFUSAL_WITH(StringFromGUID2, 0, {0}), "Cannot format upgrade transaction");
    {
        const intercepted_import<"GetTokenInformation", decltype(GetTokenInformation)> services{
            library.module(),
            [](HANDLE, TOKEN_INFORMATION_CLASS what, LPVOID answer, DWORD, PDWORD) -> std::optional<BOOL> {
                if (what != TokenSessionId) {
                    return std::nullopt;
                }
                *static_cast<DWORD*>(answer) = 0;
                return TRUE;
            }};
        EXPECT_EQ(refusal(), NOBODY);
    }
    explorer.reset();
    test_support::end_explorer();
    EXPECT_EQ(refusal(), NOBODY);
    EXPECT_EQ(session.property(L"begin_controlled_upgrade"), std::nullopt);
}

} // namespace
} // namespace custom_actions
