// msix_install_package and msix_uninstall_package in the built library, with the stand-in for PowerShell.

#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace test_support {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr UINT INFO = 0x04000000;
constexpr UINT ERROR_LINE = 0x01000000;
constexpr const char* INSTALL = "msix_install_package";
constexpr const char* UNINSTALL = "msix_uninstall_package";

class PackageActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "takes PowerShell's place: set DISPOSABLE_MACHINE where that may be";
        }
        scene.emplace();
        stand_in = &scene->powershell;
    }

    // What the action returns; fails the test where it leaves a handle open. Its lines are in `lines`,
    // without their prefix.
    UINT run(const char* action, const std::wstring& data)
    {
        session.set_property(L"CustomActionData", data);
        const std::size_t before = session.messages().size();
        UINT result = 0;
        EXPECT_EQ(thrown_by([&] { result = library.call(action, session.handle()); }), "");
        const std::string name{action};
        const std::wstring prefix = L"Custom action: " + std::wstring{name.begin(), name.end()} + L": ";
        lines.assign(
            session.messages().begin() + static_cast<std::ptrdiff_t>(before), session.messages().end());
        for (posted_message& line : lines) {
            EXPECT_TRUE(line.text.starts_with(prefix));
            line.text.erase(0, prefix.size());
        }
        return result;
    }

    loaded_library library;
    scripted_session session{library.module()};
    std::optional<upgrade_scene> scene;
    const powershell_stand_in* stand_in = nullptr;
    std::vector<posted_message> lines;
};

const posted_message NO_DATA{ERROR_LINE, L"Failed to get custom action data"};
const posted_message INSTALL_STARTS{INFO, L"Starting InstallMsixPackage..."};
const posted_message UNINSTALL_STARTS{INFO, L"Starting UninstallMsixPackage..."};

TEST_F(PackageActions, register_a_package_with_its_own_folder)
{
    const std::wstring folder = scene->context().product_directory; // which has a quote in it
    const std::wstring package = folder + L"\\Sorvane.Icon.Package.msix";
    scene->copy_packages(L"2.0.0");
    std::wstring quoted = folder;
    quoted.insert(quoted.find(L'\''), 1, L'\'');

    EXPECT_EQ(run(INSTALL, package), 0U);
    EXPECT_THAT(
        lines,
        ElementsAre(
            INSTALL_STARTS,
            posted_message{INFO, L"Install path: " + folder},
            posted_message{INFO, L"MSIX fullpath: " + package},
            posted_message{
                INFO,
                L"about to run: powershell.exe -NoProfile -ExecutionPolicy Bypass -Command \"Add-AppxPackage "
                L"-Path '" +
                    quoted + L"\\Sorvane.Icon.Package.msix' -ExternalLocation '" + quoted +
                    L"' -ForceUpdateFromAnyVersion -DeferRegistrationWhenPackagesAreInUse -ErrorAction "
                    L"Stop\""},
            posted_message{INFO, L"ran command - result exitCode: 0"}));
    EXPECT_THAT(stand_in->packages(), Contains(L"Sorvane.Icon 2.0.0.0 Ok " + folder));
    EXPECT_THAT(stand_in->packages(), testing::SizeIs(2)) << "in the place of the older one";

    stand_in->tell(L"PrintError", L"12 Icon");
    stand_in->tell(L"PrintOut", L"11 Icon");
    EXPECT_EQ(run(INSTALL, package), 0U) << "an error that is printed is none";
    ASSERT_THAT(lines, testing::SizeIs(7));
    EXPECT_EQ(lines[4], (posted_message{INFO, L"PowerShell Output: 01234567890"}));
    EXPECT_EQ(lines[5], (posted_message{ERROR_LINE, L"PowerShell Error: 012345678901"}));
}

TEST_F(PackageActions, fail_as_their_command_does)
{
    EXPECT_EQ(run(INSTALL, L"C:\\absent.msix"), 1603U);
    ASSERT_THAT(lines, testing::SizeIs(6));
    EXPECT_EQ(lines[1], (posted_message{INFO, L"Install path: C:\\"}));
    EXPECT_EQ(
        lines[4],
        (posted_message{ERROR_LINE, L"PowerShell Error: Could not find file 'C:\\absent.msix'.\r\n"}));
    EXPECT_EQ(lines[5], (posted_message{INFO, L"ran command - result exitCode: 1"}));

    stand_in->tell(L"Die", L"3010 absent");
    EXPECT_EQ(run(INSTALL, L"C:\\absent.msix"), 1603U) << "any code but 0";
    EXPECT_EQ(lines.back(), (posted_message{INFO, L"ran command - result exitCode: 3010"}));

    const failing_import<"CreateProcessW", decltype(CreateProcessW)> fault{
        library.module(), FALSE, {ERROR_FILE_NOT_FOUND, 1, 0}};
    for (const char* action : {INSTALL, UNINSTALL}) {
        EXPECT_EQ(run(action, L"absent"), 1603U);
        EXPECT_EQ(
            lines.at(lines.size() - 2),
            (posted_message{ERROR_LINE, L"PowerShell Error: Failed to launch PowerShell process."}));
        EXPECT_EQ(lines.back(), (posted_message{INFO, L"ran command - result exitCode: 4294967295"}));
    }
}

TEST_F(PackageActions, take_up_to_259_characters)
{
    const std::wstring name(259, L'n');
    EXPECT_EQ(run(UNINSTALL, name), 0U);
    EXPECT_EQ(run(INSTALL, name), 1603U) << "it is read, and PowerShell does not find it";
    EXPECT_THAT(stand_in->scripts(), testing::SizeIs(2));

    for (const std::wstring& data : {name + L'n', std::wstring{}}) {
        EXPECT_EQ(run(INSTALL, data), 87U);
        EXPECT_THAT(lines, ElementsAre(INSTALL_STARTS, NO_DATA));
        EXPECT_EQ(run(UNINSTALL, data), 87U);
        EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, NO_DATA));
    }
    session.fail(installer_call::get_property);
    EXPECT_EQ(run(UNINSTALL, L"Sorvane.Icon"), 87U);
    EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, NO_DATA));
    EXPECT_THAT(stand_in->scripts(), testing::SizeIs(2));
}

TEST_F(PackageActions, remove_every_package_of_a_name)
{
    stand_in->register_package(L"Sorvane.Icon", L"1.4.0.0");
    stand_in->register_package(L"Sorvane.Tag", L"1.5.0.0");
    EXPECT_EQ(run(UNINSTALL, L"Sorvane.Icon"), 0U);
    EXPECT_THAT(
        stand_in->packages(), ElementsAre(L"Quorbel.Paste 1.4.0.0 Ok -", L"Sorvane.Tag 1.5.0.0 Ok -"));
    EXPECT_THAT(
        lines,
        ElementsAre(
            UNINSTALL_STARTS,
            posted_message{INFO, L"MSIX fullpath: Sorvane.Icon"},
            posted_message{
                INFO,
                L"about to run: powershell.exe -NoProfile -ExecutionPolicy Bypass -Command "
                L"\"$ErrorActionPreference='Stop'; try { Get-AppxPackage -Name 'Sorvane.Icon' | "
                L"ForEach-Object { Remove-AppxPackage -Package $_.PackageFullName -ErrorAction Stop }; if "
                L"(Get-AppxPackage -Name 'Sorvane.Icon') { throw 'Package remains registered after removal' "
                L"}; exit 0 } catch { Write-Error $_ -ErrorAction Continue; exit 1 }\""},
            posted_message{INFO, L"ran command - result exitCode: 0"}));
    EXPECT_EQ(run(UNINSTALL, L"Sorvane.Icon"), 0U) << "there is none left";
    stand_in->tell(L"KeepPackage", L"Tag");
    EXPECT_EQ(run(UNINSTALL, L"Sorvane.Tag"), 1603U);
    EXPECT_EQ(
        lines.at(3),
        (posted_message{ERROR_LINE, L"PowerShell Error: Package remains registered after removal\r\n"}));
}

TEST_F(PackageActions, run_nothing_for_a_name_that_no_package_has)
{
    const std::wstring allowed = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-";
    EXPECT_EQ(run(UNINSTALL, allowed), 0U);
    EXPECT_THAT(stand_in->scripts(), testing::SizeIs(1));
    std::wstring others;
    for (wchar_t unit = 1; unit != 0x250; ++unit) {
        others += unit;
    }
    others += L"\u0660\u2018\u2019\u212A\uFF0E\uFF21\xD800\uFFFF";
    for (const wchar_t unit : others) {
        if (allowed.find(unit) == std::wstring::npos) {
            const std::wstring name = std::wstring{L"Sorvane."} + unit + L"Icon";
            EXPECT_EQ(run(UNINSTALL, name), 87U) << static_cast<unsigned>(unit);
            EXPECT_THAT(
                lines, ElementsAre(UNINSTALL_STARTS, posted_message{INFO, L"MSIX fullpath: " + name}));
        }
    }
    EXPECT_THAT(stand_in->scripts(), testing::SizeIs(1));
}

} // namespace
} // namespace test_support
