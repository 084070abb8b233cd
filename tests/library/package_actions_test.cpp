// msix_install_package and msix_uninstall_package of the built library, with the PowerShell stand-in.

#include "package/toy_suite/powershell/packages.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "tests/support/import_hook.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace test_support {
namespace {

using testing::EndsWith;

TEST(PackageActions, validate_their_data_and_log_what_the_command_prints)
{
    if (!machine_is_disposable()) {
        GTEST_SKIP() << "replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed";
    }
    const upgrade_fixture fixture;
    const loaded_library library;
    // Calls msix_..._package and returns the lines that it logs, with its code last.
    const auto run = [&](const std::string& action, const std::wstring& data) {
        test_session session{library.module()};
        session.set_property(L"CustomActionData", data);
        const UINT code = library.call(("msix_" + action + "_package").c_str(), session.handle());
        std::wstring lines;
        for (const auto& [type, text] : session.messages()) {
            lines += L'\n' + text + (type == INSTALLMESSAGE_ERROR ? L" (error)" : L"");
        }
        return lines + L'\n' + std::to_wstring(code);
    };
    std::wstring much; // more than a pipe's buffer
    while (much.size() != 100'000) {
        much += L"0123456789";
    }
    fixture.powershell.set_order(L"PrintOut", L"100000 Plexa");
    fixture.powershell.set_order(L"PrintError", L"100000 Plexa");
    const std::wstring folder = fixture.context().product_directory; // with a quote in its name
    const std::wstring line = L"\nCustom action: msix_install_package: ";
    const std::wstring logged = run("install", folder + L"\\Quorbel.Plexa.Package.msix");
    EXPECT_THAT(logged, testing::HasSubstr(line + L"PowerShell Output: " + much + line));
    EXPECT_THAT(logged, testing::HasSubstr(line + L"PowerShell Error: " + much + L" (error)" + line));
    EXPECT_THAT(logged, EndsWith(line + L"ran command - result exitCode: 0\n0"));
    const auto plexa = toy_powershell::packages_named(L"Quorbel.Plexa").at(0);
    EXPECT_EQ(plexa.identity.version, L"1.5.0.0");
    EXPECT_EQ(toy_powershell::state_key{LR"(Packages\)" + plexa.full_name}.text(L"ExternalLocation"), folder);
    {
        // Text too long for memory (the length is -1): the pipe must still be read to its end.
        const import_hook huge{library.module(), "MultiByteToWideChar", [] { return -1; }};
        EXPECT_THAT(
            run("install", folder + L"\\Quorbel.Plexa.Package.msix"), EndsWith(L"std::bad_alloc\n1603"));
    }
    // PowerShell takes brackets as a wildcard, and a typographic quote as the end of the literal.
    std::filesystem::copy_file(folder + L"\\Quorbel.Plexa.Package.msix", folder + L"\\[1].msix");
    const std::wstring missing =
        L"PowerShell Error: Could not find file 'C:\\\u00DC\u20AC.msix'.\r\n (error)" + line +
        L"ran command - result exitCode: 1\n1603";
    EXPECT_THAT(run("install", L"C:\\\u00DC\u20AC.msix"), EndsWith(missing));
    EXPECT_THAT(run("install", folder + L"\\[1].msix"), EndsWith(L"\n1603"));
    EXPECT_THAT(run("install", folder + L"\\Quorbel.Plex[a-c].Package.msix"), EndsWith(L"\n0"));
    EXPECT_THAT(run("install", folder + L"\\O\u2019Brien.msix"), EndsWith(L"\n1603"));
    EXPECT_NE(fixture.powershell.refused(), L"");

    const std::wstring name =
        L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-" + std::wstring(195, L'n');
    for (const std::wstring& data : {name + L'n', std::wstring{}}) {
        EXPECT_THAT(run("install", data), EndsWith(L"Failed to get custom action data (error)\n87"));
        EXPECT_THAT(run("uninstall", data), EndsWith(L"Failed to get custom action data (error)\n87"));
    }
    for (const wchar_t unit : std::wstring{L" _\\/'\"*;\u00E4\u0660\u2019\u212A\uFF21"}) {
        const std::wstring bad = std::wstring{L"Icon"} + unit;
        EXPECT_THAT(run("uninstall", bad), EndsWith(L": MSIX fullpath: " + bad + L"\n87"));
    }
    EXPECT_EQ(fixture.powershell.scripts().size(), 6U) << "invalid data must run nothing";
    EXPECT_THAT(run("uninstall", name), EndsWith(L"\n0")) << "no package has this name";
}

} // namespace
} // namespace test_support
