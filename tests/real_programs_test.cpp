// The library's file; the library and run_action with real programs and windows, and with scripts, which the
// PowerShell stand-in runs.

#include "custom_actions/common/system_directory.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"
#include "package/toy_suite/powershell/state.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "support/real_session.h"
#include "support/toy_suite.h"
#include "tests/support/faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <deque>
#include <filesystem>
#include <optional>
#include <string>

namespace test_support {
namespace {

namespace fs = std::filesystem;
using toy_powershell::state_key;

TEST(LibraryImage, exports_every_action_imports_only_system_libraries_and_is_hardened)
{
    const loaded_library library;
    const pe_image image{library.module()};
    EXPECT_EQ(image.exported_names().size(), 22U); // action_traces.txt has their names
    const fs::path system = custom_actions::system_directory("");
    for (const imported_function& imported : image.imports()) {
        EXPECT_TRUE(exists(system / imported.library)) << imported.name << " of " << imported.library;
    }
    constexpr unsigned hardened = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE |
                                  IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                                  IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(image.headers().OptionalHeader.DllCharacteristics & hardened, hardened);
}

TEST(ProcessActions, close_the_suite_and_its_hosts_and_nothing_else)
{
    if (!machine_is_disposable()) {
        GTEST_SKIP() << "closes the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
    }
    end_explorer();
    const std::wstring extension = L" --load=" + toy_library(L"Sorvane.Tag.ShellExtension.dll");
    const std::wstring hook = L" --load=" + toy_library(L"QUORBEL.windoworganizer.x64.dll");
    const toy_process main{L"Quorbel.exe"};
    const toy_process host{L"dllhost.exe", extension};
    const toy_process hooked{L"Other.exe", L"--window=message" + hook};
    const toy_process other_host{L"dllhost.exe", L"--load=" + toy_library(L"Other.dll")};
    std::deque<toy_process> killed;
    killed.emplace_back(L"quorbel.systemtray.EXE", L"--window=ignores");
    // The windows of a desktop are not asked.
    for (const wchar_t* desktop : {L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"}) {
        killed.emplace_back(L"explorer.exe", L"--class=" + (desktop + extension));
    }
    const loaded_library library;
    const real_session session;
    DWORD woken = 0; // the owner of a message-only window
    const import_hook posts{library.module(), "PostMessageW", [&woken](HWND window, UINT message) {
                                GetWindowThreadProcessId(window, message == WM_NULL ? &woken : nullptr);
                                return std::optional<BOOL>{};
                            }};
    EXPECT_EQ(library.call("close_and_kill_our_processes", session.handle()), 0U);
    EXPECT_EQ(main.exit_code(), 0U);
    EXPECT_EQ(host.exit_code(), 0U);
    for (const toy_process& program : killed) {
        EXPECT_EQ(program.exit_code(), 1U) << "it must be killed: " << &program - &killed[0];
    }
    EXPECT_EQ(hooked.exit_code(), std::nullopt);
    EXPECT_EQ(other_host.exit_code(), std::nullopt);
    EXPECT_EQ(woken, hooked.id()) << "it must be woken to release the hook";
    EXPECT_THAT(session.messages().at(3).text, testing::EndsWith(L": " + std::to_wstring(hooked.id())));
}

// Puts the toy suite's stand-in in PowerShell's place for good; it starts without orders and packages.
class PowerShell : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "replaces PowerShell: set DISPOSABLE_MACHINE if that is allowed";
        }
        const fs::path program = custom_actions::powershell_program(custom_actions::system_directory(""));
        fs::remove(program);
        fs::copy_file(beside_this_program(L"toy_powershell.exe"), program);
        RegDeleteTreeW(HKEY_CURRENT_USER, toy_powershell::STATE);
        fs::remove_all(folder); // a killed process may have left one
        fs::copy(beside_this_program(L"package\\1.5.0"), folder, fs::copy_options::recursive);
        fs::create_directory(folder / L"output");
    }

    void TearDown() override { fs::remove_all(folder); }

    const fs::path folder = fs::temp_directory_path() / L"O'Brien & S\u00FCite $(1)"; // with packages
};

TEST_F(PowerShell, registers_packages_and_its_output_is_logged)
{
    const loaded_library library;
    const real_session session;
    const auto run = [&](const char* action, const std::wstring& data) {
        MsiSetPropertyW(session.handle(), L"CustomActionData", data.c_str());
        return library.call(action, session.handle());
    };
    const state_key orders{toy_powershell::ORDERS};
    orders.write(L"PrintOut", std::wstring{L"100000 Plexa"}); // more than a pipe's buffer
    orders.write(L"PrintError", std::wstring{L"100000 Plexa"});
    std::wstring much;
    while (much.size() != 100'000) {
        much += L"0123456789";
    }
    EXPECT_EQ(run("msix_install_package", folder / L"Quorbel.Plexa.Package.msix"), 0U);
    EXPECT_THAT(session.messages().at(4).text, testing::EndsWith(L": PowerShell Output: " + much));
    EXPECT_THAT(session.messages().at(5).text, testing::EndsWith(L": PowerShell Error: " + much));
    EXPECT_EQ(run("msix_install_package", L"C:\\\u20AC.msix"), 1603U) << "the script's exit code is 1";
    EXPECT_THAT(session.messages().at(11).text, testing::EndsWith(L" 'C:\\\u20AC.msix'.\r\n"));
    EXPECT_EQ(run("msix_install_package", folder / L"Quorbel.Past[a-e].Package.msix"), 0U) << "a wildcard";
    EXPECT_EQ(run("msix_uninstall_package", std::wstring(259, L'n')), 0U) << "the longest data";
    EXPECT_EQ(run("msix_uninstall_package", std::wstring(260, L'n')), 87U) << "too long";
    EXPECT_EQ(run("msix_install_package", L""), 87U);
    EXPECT_EQ(run("msix_uninstall_package", L"Icon'"), 87U) << "not the name of a package";
    // Text too long for memory (the length is -1): the pipe must still be read to its end.
    const import_hook huge{library.module(), "MultiByteToWideChar", [] { return -1; }};
    EXPECT_EQ(run("msix_install_package", folder / L"Quorbel.Plexa.Package.msix"), 1603U);
}

TEST_F(PowerShell, runs_a_script_as_the_user_and_is_killed_after_its_time_limit)
{
    using namespace custom_actions;
    controlled_upgrade::context upgrade = own_context();
    upgrade.product_directory = folder;
    upgrade.workspace = folder;
    // Returns the size of the script's output, or the error.
    const auto run = [&](const wchar_t* order, const std::wstring& argument, DWORD limit = 60'000) {
        state_key{}.remove_subkey(toy_powershell::ORDERS);
        state_key{toy_powershell::ORDERS}.write(order, argument);
        std::size_t size = 0;
        const std::string error = thrown_by([&] {
            size = run_powershell(0, upgrade, capture_folders_script(upgrade), L"capture", limit).size();
        });
        return error.empty() ? std::to_string(size) : error;
    };
    const std::string failed = "User operation failed; see retained upgrade recovery logs";
    EXPECT_EQ(run(L"NoLog", L"capture"), failed);
    EXPECT_EQ(run(L"PrintOut", L"16777213 capture"), "16777216") << "16 MiB with the byte-order mark";
    EXPECT_EQ(run(L"PrintOut", L"0 capture"), "0") << "output of an earlier run";
    EXPECT_EQ(run(L"PrintOut", L"16777214 capture"), failed);
    EXPECT_NE(state_key{}.number(L"ElevationType"), DWORD{TokenElevationTypeFull});
    EXPECT_EQ(run(L"Hang", L"capture", 300), "User operation timed out; see retained upgrade recovery logs");
    EXPECT_EQ(end_programs(L"powershell.exe"), 0U) << "the script still runs";
    const import_hook pipe{GetModuleHandleW(nullptr), "GetFileType", [] { return FILE_TYPE_PIPE; }};
    EXPECT_EQ(run(L"PrintOut", L"0 capture"), failed) << "the log is not a file";
    EXPECT_TRUE(fs::exists(folder / L"output\\capture.log"));
}

TEST(RunAction, follows_its_command_line_and_prints_the_outcome)
{
    const struct {
        const wchar_t* arguments;
        DWORD exit_code;
        const char* output; // a part of it
        const wchar_t* input_from = L"";
    } rows[]{
        {L"check_upgrade_type ProductVersion=2 INSTALLED_APP_VERSION=2", 0, "\nset IS_MINOR_UPGRADE=1\n"},
        {L"check_upgrade_type IS_MINOR_UPGRADE=1", 0, "\ncleared IS_MINOR_UPGRADE\nreturned 0: success\n"},
        {L"--no-session check_upgrade_type ProductVersion=2", 2, "--no-session takes no properties\n\nusage"},
        {L"--library absent.dll check_upgrade_type", 1, "run_action: loading the library"},
        {L"stop_search", 1, "changes this machine. Run it? [y/N] Not run.\n", L"cmd.exe /c echo no|"},
        {L"stop_search",
         1603,
         "[y/N] 0x01000000 error: Invalid Search state\nno property changed\nreturned 1603: failure\n",
         L"cmd.exe /c echo yes|"},
        {L"--yes msix_install_package", 87, "returned 87: its CustomActionData cannot be read\n"},
        {L"--list", 0, "\nstop_search                             changes the machine"},
        {L"check_upgrade_type productversion=2", 2, "no action reads or sets productversion\n\nproperties"},
    };

    for (const auto& [arguments, exit_code, output, input_from] : rows) {
        const std::wstring tool = L'"' + beside_this_program(L"run_action.exe") + L"\" ";
        auto result = run_child(input_from + (tool + arguments), std::chrono::seconds{20});
        std::erase(result.output, '\r');
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        EXPECT_THAT(result.output, testing::HasSubstr(output));
    }
}

} // namespace
} // namespace test_support
