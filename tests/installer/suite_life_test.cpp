// The life of the suite on one machine, through the real installer. A call of an action that did not take
// place counts as a success there, so each step shows what its actions wrote and what they changed.

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/pe_image.h"
#include "tests/support/registry_sandbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <string>

namespace test_support {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* VERSION_CHECK = "Custom action: check_upgrade_type: ";

std::optional<std::wstring> suite_value(const wchar_t* name)
{
    wchar_t text[64];
    DWORD size = sizeof text;
    const LSTATUS status = RegGetValueW(
        HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Brenmoor\Quorbel)", name, RRF_RT_REG_SZ, nullptr, text, &size);
    return status == ERROR_SUCCESS ? std::optional<std::wstring>{text} : std::nullopt;
}

// The first line of the installed file, or nothing where there is none.
std::string release_notes()
{
    std::ifstream file{R"(C:\Program Files\Quorbel\release_notes.txt)"};
    std::string line;
    std::getline(file, line);
    return line;
}

const std::wstring HANDLERS = LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
constexpr const wchar_t* FOREIGN_HANDLER = L"{11111111-2222-3333-4444-555555555555}";

std::optional<std::string> handler_of(const std::wstring& extension)
{
    return planted_value(HKEY_LOCAL_MACHINE, HANDLERS + L'\\' + extension, L"");
}

// Which of the suite's handlers there are, one for each type that has it.
std::size_t types_with_our_handler()
{
    return static_cast<std::size_t>(
        std::ranges::count_if(custom_actions::PROPERTY_HANDLER_EXTENSIONS, [](auto type) {
            return handler_of({type.begin(), type.end()}) ==
                   registry_text(L"{73A6EEEE-36B5-4536-A731-8F92EF883087}");
        }));
}

class SuiteLife : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "installs packages on this machine: set DISPOSABLE_MACHINE where that may be";
        }
        remove_traces();
    }

    void TearDown() override
    {
        if (machine_is_disposable()) {
            remove_traces();
        }
    }

    static void remove_traces()
    {
        remove_sample_packages();
        for (const wchar_t* type : {L"\\.jpg", L"\\.png"}) {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, (HANDLERS + type).c_str());
        }
    }
};

TEST_F(SuiteLife, runs_from_installation_over_two_upgrades_to_removal)
{
    ASSERT_EQ(suite_value(L"Version"), std::nullopt);
    plant_value(HKEY_LOCAL_MACHINE, HANDLERS + L"\\.jpg", L"", registry_text(FOREIGN_HANDLER));
    plant_value(HKEY_LOCAL_MACHINE, HANDLERS + L"\\.png", L"", registry_text(FOREIGN_HANDLER));

    const installation first = run_installer(sample_package(L"1.4.1"));
    EXPECT_EQ(first.result, 0U);
    EXPECT_THAT(
        first.lines_after(VERSION_CHECK),
        ElementsAre(
            "Starting version check...",
            "INSTALLED_APP_VERSION not found. Falling back to 0.1.16.0.",
            "New: 1.4.1.0 Old: 0.1.16.0",
            "Detected MAJOR/MODERATE upgrade."));
    EXPECT_EQ(suite_value(L"Version"), L"1.4.1");
    EXPECT_EQ(suite_value(L"MinorUpgrade"), L"");
    EXPECT_EQ(release_notes(), "Quorbel 1.4.1");
    EXPECT_THAT(
        first.lines_after("Custom action: propertyhandler_updateregistry: "),
        ElementsAre("Starting...", "Registry updated successfully."));
    EXPECT_EQ(types_with_our_handler(), 63U) << "all but .png, which had another";
    EXPECT_EQ(handler_of(L".png"), registry_text(FOREIGN_HANDLER));

    const installation minor = run_installer(sample_package(L"1.4.2"));
    EXPECT_EQ(minor.result, 0U);
    EXPECT_THAT(
        minor.lines_after(VERSION_CHECK),
        ElementsAre(
            "Starting version check...",
            "Found INSTALLED_APP_VERSION in registry.",
            "New: 1.4.2.0 Old: 1.4.1.0",
            "Detected MINOR upgrade."));
    EXPECT_EQ(suite_value(L"Version"), L"1.4.2");
    EXPECT_EQ(suite_value(L"MinorUpgrade"), L"1");
    EXPECT_EQ(release_notes(), "Quorbel 1.4.2");

    const installation major = run_installer(sample_package(L"1.5.0"));
    EXPECT_EQ(major.result, 0U);
    EXPECT_THAT(
        major.lines_after(VERSION_CHECK),
        ElementsAre(
            "Starting version check...",
            "Found INSTALLED_APP_VERSION in registry.",
            "New: 1.5.0.0 Old: 1.4.2.0",
            "Detected MAJOR/MODERATE upgrade."));
    EXPECT_EQ(suite_value(L"Version"), L"1.5.0");
    EXPECT_EQ(suite_value(L"MinorUpgrade"), L"");
    EXPECT_EQ(release_notes(), "Quorbel 1.5.0");
    EXPECT_EQ(types_with_our_handler(), 63U);
    for (const auto* upgrade : {&minor, &major}) {
        EXPECT_THAT(upgrade->lines_after("Quorbel has been removed."), IsEmpty())
            << "the notice belongs to the removal of the suite, not of its older version";
    }

    const installation removal = run_installer(sample_package(L"1.5.0"), L"REMOVE=ALL");
    EXPECT_EQ(removal.result, 0U);
    EXPECT_THAT(removal.lines_after(VERSION_CHECK), IsEmpty());
    EXPECT_THAT(removal.lines_after("Quorbel has been removed."), ElementsAre(""));
    EXPECT_THAT(removal.lines_after("Please restart when it is convenient for you."), ElementsAre(""));
    EXPECT_EQ(suite_value(L"Version"), std::nullopt);
    EXPECT_EQ(release_notes(), "");
    EXPECT_THAT(
        removal.lines_after("Custom action: propertyhandler_removeregistry: "),
        ElementsAre("Starting...", "Registry updated successfully."));
    EXPECT_EQ(types_with_our_handler(), 0U);
    EXPECT_EQ(handler_of(L".jpg"), registry_text(FOREIGN_HANDLER));
}

// What the package's tables say of each action: a wrong type is played silently, at the wrong time or as
// another user.
std::map<std::string, int> authored_types(const std::wstring& package)
{
    using custom_actions::record_handle; // MsiCloseHandle closes each of these
    record_handle database;
    record_handle view;
    EXPECT_EQ(MsiOpenDatabaseW(package.c_str(), MSIDBOPEN_READONLY, database.put()), 0U);
    EXPECT_EQ(
        MsiDatabaseOpenViewW(database.get(), L"SELECT `Target`, `Type` FROM `CustomAction`", view.put()), 0U);
    EXPECT_EQ(MsiViewExecute(view.get(), 0), 0U);
    std::map<std::string, int> types;
    for (record_handle row; MsiViewFetch(view.get(), row.put()) == ERROR_SUCCESS;) {
        char target[80];
        DWORD length = sizeof target;
        EXPECT_EQ(MsiRecordGetStringA(row.get(), 1, target, &length), 0U);
        types[target] = MsiRecordGetInteger(row.get(), 2);
    }
    return types;
}

TEST(SamplePackage, calls_every_action_that_the_library_exports)
{
    constexpr int immediate = 1; // a library in the Binary table, as the installing user, its result observed
    constexpr int deferred = 1 + 1024 + 2048; // from the script, as LocalSystem
    const std::map<std::string, int> expected{
        {"check_upgrade_type", immediate},
        {"notify_restart_recommended", immediate},
        {"propertyhandler_update_registry", deferred},
        {"propertyhandler_remove_registry", deferred},
    };
    EXPECT_EQ(authored_types(sample_package(L"1.5.0")), expected);

    const loaded_library library;
    for (const std::string& action : pe_image{library.module()}.exported_names()) {
        EXPECT_TRUE(expected.contains(action)) << action;
    }
}

} // namespace
} // namespace test_support
