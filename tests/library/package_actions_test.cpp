// msix_install_package and msix_uninstall_package in the built library, with the stand-in for PowerShell.

#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace test_support {
namespace {

using testing::ElementsAre;

constexpr const wchar_t* INSTALL = L"msix_install_package";
constexpr const wchar_t* UNINSTALL = L"msix_uninstall_package";
constexpr const wchar_t* INSTALL_STARTS = L"Starting InstallMsixPackage...";
constexpr const wchar_t* UNINSTALL_STARTS = L"Starting UninstallMsixPackage...";
constexpr const wchar_t* NO_DATA = L"error: Failed to get custom action data";

class PackageActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "takes PowerShell's place: set DISPOSABLE_MACHINE where that may be";
        }
        scene.emplace();
    }

    // What the action returns; fails the test where it leaves a handle open. Its lines are in `lines`,
    // without their prefix.
    UINT run(const std::wstring& action, const std::wstring& data)
    {
        session.set_property(L"CustomActionData", data);
        const std::size_t before = session.messages().size();
        UINT result = 0;
        const std::string name{action.begin(), action.end()};
        EXPECT_EQ(thrown_by([&] { result = library.call(name.c_str(), session.handle()); }), "");
        lines.clear();
        for (std::size_t i = before; i != session.messages().size(); ++i) {
            auto [type, text] = session.messages()[i];
            const std::wstring prefix = L"Custom action: " + action + L": ";
            EXPECT_TRUE(text.starts_with(prefix) && (type == 0x04000000 || type == 0x01000000));
            lines.push_back(text.replace(0, prefix.size(), type == 0x01000000 ? L"error: " : L""));
        }
        return result;
    }

    loaded_library library;
    scripted_session session{library.module()};
    std::optional<upgrade_scene> scene;
    std::vector<std::wstring> lines;
};

TEST_F(PackageActions, register_a_package_with_its_own_folder)
{
    const std::wstring folder = scene->context().product_directory; // which has a quote in it
    const std::wstring package = folder + L"\\Sorvane.Icon.Package.msix";
    scene->copy_packages(L"2.0.0");
    std::wstring quoted = folder;
    quoted.insert(quoted.find(L'\''), 1, L'\'');
    const intercepted_import<"CreateProcessW", decltype(CreateProcessW)> start{
        library.module(), [](const auto&... arguments) -> std::optional<BOOL> {
            EXPECT_EQ(std::get<5>(std::tie(arguments...)), DWORD{CREATE_NO_WINDOW});
            return std::nullopt;
        }};
    EXPECT_EQ(run(INSTALL, package), 0U);
    EXPECT_THAT(
        lines,
        ElementsAre(
            INSTALL_STARTS,
            L"Install path: " + folder,
            L"MSIX fullpath: " + package,
            L"about to run: powershell.exe -NoProfile -ExecutionPolicy Bypass -Command \"Add-AppxPackage "
            L"-Path "
            L"'" +
                quoted + L"\\Sorvane.Icon.Package.msix' -ExternalLocation '" + quoted +
                L"' -ForceUpdateFromAnyVersion -DeferRegistrationWhenPackagesAreInUse -ErrorAction Stop\"",
            L"ran command - result exitCode: 0"));
    EXPECT_THAT(
        scene->powershell.packages(),
        ElementsAre(L"Quorbel.Paste 1.4.0.0 Ok -", L"Sorvane.Icon 2.0.0.0 Ok " + folder));

    std::wstring much; // more than a pipe holds
    while (much.size() != 100'000) {
        much += L"0123456789";
    }
    scene->powershell.tell(L"PrintError", L"100000 Icon");
    scene->powershell.tell(L"PrintOut", L"100000 Icon");
    EXPECT_EQ(run(INSTALL, package), 0U) << "an error that is printed is none";
    ASSERT_THAT(lines, testing::SizeIs(7));
    EXPECT_EQ(lines[4], L"PowerShell Output: " + much);
    EXPECT_EQ(lines[5], L"error: PowerShell Error: " + much);
}

TEST_F(PackageActions, fail_as_their_command_does)
{
    EXPECT_EQ(run(INSTALL, L"C:\\\u00DC\u20AC.msix"), 1603U);
    ASSERT_THAT(lines, testing::SizeIs(6));
    EXPECT_EQ(lines[1], L"Install path: C:\\");
    EXPECT_EQ(lines[4], L"error: PowerShell Error: Could not find file 'C:\\\u00DC\u20AC.msix'.\r\n");
    EXPECT_EQ(lines[5], L"ran command - result exitCode: 1");

    scene->powershell.tell(L"Die", L"3010 absent");
    EXPECT_EQ(run(INSTALL, L"C:\\absent.msix"), 1603U) << "any code but 0";
    EXPECT_EQ(lines.back(), L"ran command - result exitCode: 3010");

    const failing_import<"CreateProcessW", decltype(CreateProcessW)> fault{
        library.module(), FALSE, {ERROR_FILE_NOT_FOUND}};
    EXPECT_EQ(run(UNINSTALL, L"absent"), 1603U);
    ASSERT_THAT(lines, testing::SizeIs(5));
    EXPECT_EQ(lines[3], L"error: PowerShell Error: Failed to launch PowerShell process.");
    EXPECT_EQ(lines[4], L"ran command - result exitCode: 4294967295");
}

TEST_F(PackageActions, remove_every_package_of_a_name)
{
    scene->powershell.register_package(L"Sorvane.Icon", L"1.4.0.0");
    EXPECT_EQ(run(UNINSTALL, L"Sorvane.Icon"), 0U);
    EXPECT_THAT(scene->powershell.packages(), ElementsAre(L"Quorbel.Paste 1.4.0.0 Ok -"));
    EXPECT_THAT(
        lines,
        ElementsAre(
            UNINSTALL_STARTS,
            L"MSIX fullpath: Sorvane.Icon",
            L"about to run: powershell.exe -NoProfile -ExecutionPolicy Bypass -Command "
            L"\"$ErrorActionPreference='Stop'; try { Get-AppxPackage -Name 'Sorvane.Icon' | ForEach-Object { "
            L"Remove-AppxPackage -Package $_.PackageFullName -ErrorAction Stop }; if (Get-AppxPackage -Name "
            L"'Sorvane.Icon') { throw 'Package remains registered after removal' }; exit 0 } catch { "
            L"Write-Error $_ -ErrorAction Continue; exit 1 }\"",
            L"ran command - result exitCode: 0"));
}

TEST_F(PackageActions, run_nothing_without_data_that_may_be)
{
    const std::wstring longest(259, L'n');
    EXPECT_EQ(run(UNINSTALL, longest), 0U) << "there is none of this name";
    EXPECT_EQ(run(UNINSTALL, L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-"), 0U);
    EXPECT_EQ(scene->powershell.scripts().size(), 2U);

    for (const std::wstring& data : {longest + L'n', std::wstring{}}) {
        EXPECT_EQ(run(INSTALL, data), 87U);
        EXPECT_THAT(lines, ElementsAre(INSTALL_STARTS, NO_DATA));
        EXPECT_EQ(run(UNINSTALL, data), 87U);
        EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, NO_DATA));
    }
    for (const wchar_t unit : std::wstring_view{L" _\\/'\"*;\u00E4\u0660\u2019\u212A\uFF21"}) {
        const std::wstring name = std::wstring{L"Sorvane."} + unit + L"Icon";
        EXPECT_EQ(run(UNINSTALL, name), 87U) << static_cast<unsigned>(unit);
        EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, L"MSIX fullpath: " + name));
    }
    EXPECT_EQ(scene->powershell.scripts().size(), 2U);
}

} // namespace
} // namespace test_support
