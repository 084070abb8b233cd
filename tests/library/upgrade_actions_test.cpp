// prepare_controlled_upgrade and early_close_upgrade of the built library, the latter with real programs and
// the Task Scheduler's stand-in.

#include "custom_actions/upgrade/context.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/toy_suite.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <objbase.h>

#include <optional>
#include <string>

namespace test_support {
namespace {

class UpgradeActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "closes programs and Explorer: set DISPOSABLE_MACHINE if that is allowed";
        }
        end_explorer();
    }

    loaded_library library;
    test_session session{library.module()};
};

TEST_F(UpgradeActions, pin_the_folder_and_refuse_what_could_not_be_undone)
{
    const std::wstring product = L"{11111111-2222-3333-4444-555555555555}";

    const struct {
        const wchar_t* key_path;
        const wchar_t* folder; // nullptr if the path is refused
        const wchar_t* error = L"";
        bool desktop = true;
        std::wstring products = L"{11111111-2222-3333-4444-555555555555}";
        const wchar_t* rollback_disabled = L"";
    } rows[]{
        {L"C:\\a.exe\\b", L"C:\\a.exe\\b\\"},
        {L"C:\\It's [1].exe\\\\Quorbel.EXE", L"C:\\It's [1].exe\\"},
        {L"C:\\a", nullptr, L"Sign into the desktop before upgrading Quorbel", false},
        {L"C:\\a|b", nullptr, L"Invalid upgrade transaction data"},
        {L"C:\\a", nullptr, L"Expected one installed product to upgrade", true, product + L';' + product},
        {L"C:\\a", nullptr, L"Controlled upgrade requires Windows Installer rollback", true, product, L"1"},
    };

    for (const auto& [key_path, folder, error, desktop, products, rollback_disabled] : rows) {
        SCOPED_TRACE(testing::PrintToString(key_path) + testing::PrintToString(error));
        std::optional<toy_process> explorer;
        if (desktop) {
            explorer.emplace(L"explorer.exe", L"--window=none");
        }
        session.install_component(product, L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}", key_path);
        session.set_property(L"WIX_UPGRADE_DETECTED", products);
        session.set_property(L"RollbackDisabled", rollback_disabled);
        session.set_property(L"begin_controlled_upgrade", L"");
        EXPECT_EQ(
            library.call("prepare_controlled_upgrade", session.handle()), folder == nullptr ? 1603U : 0U);
        if (folder == nullptr) {
            EXPECT_EQ(session.property(L"begin_controlled_upgrade"), std::nullopt);
            EXPECT_EQ(session.messages().back().text, std::wstring{L"Quorbel upgrade: "} + error);
        } else {
            EXPECT_EQ(session.property(L"INSTALLFOLDER"), folder);
        }
    }
}

TEST_F(UpgradeActions, close_programs_early_once_a_task_can_bring_them_back)
{
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK) << "not the model of the scheduler";
    const std::wstring data = new_upgrade_data(LR"(C:\Quorbel)");
    const auto upgrade = custom_actions::controlled_upgrade::load_context(data);
    const scheduler_stand_in scheduler;
    const toy_process stubborn{L"Quorbel.exe", L"--window=ignores"};
    const toy_process tray{L"Quorbel.SystemTray.exe", L"--class=Progman"};
    session.set_property(L"begin_controlled_upgrade", data);
    EXPECT_EQ(library.call("early_close_upgrade", session.handle()), 0U);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE)
        << "COM of this thread was given back";
    EXPECT_FALSE(stubborn.exit_code()) << "a program that ignores the request is not killed";
    EXPECT_EQ(tray.exit_code(), 0U) << "a program is closed whatever the class of its window";

    const toy_scheduler::properties expected{
        {L"UserId", upgrade.user_sid},
        {L"LogonType", L"3"},
        {L"RunLevel", L"0"},
        {L"DisallowStartIfOnBatteries", L"0"},
        {L"StopIfGoingOnBatteries", L"0"},
        {L"ExecutionTimeLimit", L"PT30S"},
        {L"Priority", L"5"},
        {L"RegisteredUser", upgrade.user_sid},
        {L"RegisteredLogonType", L"3"}};
    const std::wstring name = session.property(L"QblEarlyRecoveryTask").value_or(L"");
    EXPECT_THAT(toy_scheduler::task_names(), testing::ElementsAre(name));
    EXPECT_THAT(toy_scheduler::load_task(name), testing::Optional(testing::IsSupersetOf(expected)));
    CoUninitialize();
}

} // namespace
} // namespace test_support
