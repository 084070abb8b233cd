#include "support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(RunAction, follows_its_command_line_and_prints_the_outcome)
{
    const struct {
        const wchar_t* arguments;
        DWORD exit_code;
        const char* output; // a part of it
        const wchar_t* input_from = L"";
    } cases[]{
        {L"check_upgrade_type ProductVersion=2 INSTALLED_APP_VERSION=2", 0, "\nset IS_MINOR_UPGRADE=1\n"},
        {L"check_upgrade_type IS_MINOR_UPGRADE=1", 0, "\ncleared IS_MINOR_UPGRADE\nreturned 0: success\n"},
        {L"--no-session check_upgrade_type", 0, "returned 0: success\n"},
        {L"--library absent.dll check_upgrade_type", 1, "run_action: loading the library"},
        {L"stop_search", 1, "changes this machine. Run it? [y/N] Not run.\n", L"cmd.exe /c echo no|"},
        {L"stop_search \"CustomActionData=a b\"",
         1603,
         "[y/N] 0x01000000 error: Invalid Search state\nno property changed\nreturned 1603: failure\n",
         L"cmd.exe /c echo yes|"},
        {L"--yes msix_install_package", 87, "returned 87: its CustomActionData cannot be read\n"},
        {L"--list", 0, "\nstop_search                             changes the machine"},
        {L"check_upgrade_type stop_search", 2, "not understood: stop_search\n\nusage: run_action"},
        {L"--help", 0, "usage: run_action [--library"},
        {L"check_upgrade_type productversion=2", 2, "no action reads or sets productversion\n\nproperties"},
        {L"--yes Stop_Search", 2, "run_action: no such action: Stop_Search\n\nbegin_controlled_upgrade "},
    };

    const std::wstring tool = test_support::beside_this_program(L"run_action.exe");
    for (const auto& [arguments, exit_code, output, input_from] : cases) {
        const std::wstring command = std::wstring{input_from} + L'"' + tool + L"\" " + arguments;
        auto result = test_support::run_child(command, std::chrono::seconds{20});
        std::erase(result.output, '\r');
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        EXPECT_THAT(result.output, testing::HasSubstr(output));
    }
}

} // namespace
