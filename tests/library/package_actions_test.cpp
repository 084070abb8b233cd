// msix_install_package and msix_uninstall_package in the built library, with the stand-in for PowerShell.

#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "tests/support/failing_import.h"
#include "tests/support/scripted_session.h"
#include "tests/support/upgrade_scene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace test_support {
namespace {

using testing::ElementsAre;

constexpr const wchar_t* UNINSTALL_STARTS = L"Starting UninstallMsixPackage...";
constexpr const wchar_t* ENDED_WELL = L"ran command - result exitCode: 0";
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

    UINT install(const std::wstring& data) { return run("msix_install_package", data); }

    UINT uninstall(const std::wstring& data) { return run("msix_uninstall_package", data); }

    // What the action returns. Its lines are in `lines`, without their prefix.
    UINT run(const std::string& action, const std::wstring& data)
    {
        session.set_property(L"CustomActionData", data);
        const auto before = static_cast<std::ptrdiff_t>(session.messages().size());
        const UINT result = library.call(action.c_str(), session.handle());
        const std::wstring prefix = L"Custom action: " + std::wstring{action.begin(), action.end()} + L": ";
        lines.clear();
        for (auto [type, text] : session.messages() | std::views::drop(before)) {
            EXPECT_TRUE(text.starts_with(prefix));
            EXPECT_TRUE(type == INSTALLMESSAGE_INFO || type == INSTALLMESSAGE_ERROR);
            lines.push_back(text.replace(0, prefix.size(), type == INSTALLMESSAGE_ERROR ? L"error: " : L""));
        }
        return result;
    }

    loaded_library library;
    scripted_session session{library.module()};
    std::optional<upgrade_scene> scene;
    std::vector<std::wstring> lines;
};

TEST_F(PackageActions, register_a_package_with_its_own_folder_and_remove_it)
{
    const std::wstring folder = scene->context().product_directory; // which has a quote in it
    const std::wstring package = folder + L"\\Sorvane.Icon.Package.msix";
    scene->copy_packages(L"2.0.0");
    const intercepted_import<"CreateProcessW", decltype(CreateProcessW)> start{
        library.module(), [](const auto&... arguments) -> std::optional<BOOL> {
            EXPECT_EQ(std::get<5>(std::tie(arguments...)), DWORD{CREATE_NO_WINDOW});
            return std::nullopt;
        }};
    EXPECT_EQ(install(package), 0U);
    EXPECT_THAT(
        lines,
        ElementsAre(
            L"Starting InstallMsixPackage...",
            L"Install path: " + folder,
            L"MSIX fullpath: " + package,
            L"about to run: powershell.exe -NoProfile -ExecutionPolicy Bypass -Command \"" +
                scene->powershell.scripts().back() + L'"',
            ENDED_WELL));
    const std::wstring other = L"Quorbel.Paste 1.4.0.0 Ok -";
    EXPECT_THAT(scene->powershell.packages(), ElementsAre(other, L"Sorvane.Icon 2.0.0.0 Ok " + folder));

    scene->powershell.register_package(L"Sorvane.Icon", L"1.4.0.0");
    scene->powershell.tell(L"KeepPackage", L"Sorvane.Icon_1");
    EXPECT_EQ(uninstall(L"Sorvane.Icon"), 1603U) << "one is left";
    scene->powershell.tell_nothing();
    EXPECT_EQ(uninstall(L"Sorvane.Icon"), 0U);
    EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, L"MSIX fullpath: Sorvane.Icon", testing::_, ENDED_WELL));
    EXPECT_THAT(scene->powershell.packages(), ElementsAre(other)) << "every version is removed";
    EXPECT_EQ(scene->powershell.refused(), L"");
}

TEST_F(PackageActions, tell_what_their_command_printed_and_fail_as_it_does)
{
    std::wstring much; // more than a pipe holds
    while (much.size() != 100'000) {
        much += L"0123456789";
    }
    scene->powershell.tell(L"PrintOut", L"100000 Plexa");
    scene->powershell.tell(L"PrintError", L"100000 Plexa");
    EXPECT_EQ(install(scene->program(L"Quorbel.Plexa.Package.msix")), 0U) << "though it printed an error";
    ASSERT_THAT(lines, testing::SizeIs(7));
    EXPECT_EQ(lines[4], L"PowerShell Output: " + much);
    EXPECT_EQ(lines[5], L"error: PowerShell Error: " + much);

    EXPECT_EQ(install(L"C:\\\u00DC\u20AC.msix"), 1603U);
    ASSERT_THAT(lines, testing::SizeIs(6));
    EXPECT_EQ(lines[1], L"Install path: C:\\");
    EXPECT_EQ(lines[4], L"error: PowerShell Error: Could not find file 'C:\\\u00DC\u20AC.msix'.\r\n");
    EXPECT_EQ(lines[5], L"ran command - result exitCode: 1");

    scene->powershell.tell(L"Die", L"3010 absent");
    EXPECT_EQ(uninstall(L"absent"), 1603U) << "any code but 0";
    EXPECT_EQ(lines.back(), L"ran command - result exitCode: 3010");

    const failing_import<"CreateProcessW", decltype(CreateProcessW)> fault{
        library.module(), FALSE, {ERROR_FILE_NOT_FOUND}};
    EXPECT_EQ(uninstall(L"absent"), 1603U);
    ASSERT_THAT(lines, testing::SizeIs(5));
    EXPECT_EQ(lines[3], L"error: PowerShell Error: Failed to launch PowerShell process.");
    EXPECT_EQ(lines[4], L"ran command - result exitCode: 4294967295");
}

TEST_F(PackageActions, run_nothing_without_data_that_may_be)
{
    const std::wstring longest(259, L'n');
    EXPECT_EQ(uninstall(longest), 0U) << "there is none of this name";
    EXPECT_EQ(uninstall(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-"), 0U);
    for (const std::wstring& data : {longest + L'n', std::wstring{}}) {
        EXPECT_EQ(install(data), 87U);
        EXPECT_EQ(lines.back(), NO_DATA);
        EXPECT_EQ(uninstall(data), 87U);
        EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, NO_DATA));
    }
    for (const wchar_t unit : std::wstring_view{L" _\\/'\"*;\u00E4\u0660\u2019\u212A\uFF21"}) {
        EXPECT_EQ(uninstall(std::wstring{L"Sorvane."} + unit), 87U);
        EXPECT_THAT(lines, ElementsAre(UNINSTALL_STARTS, std::wstring{L"MSIX fullpath: Sorvane."} + unit));
    }
    EXPECT_EQ(scene->powershell.scripts().size(), 2U);
}

} // namespace
} // namespace test_support
