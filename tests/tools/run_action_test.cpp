#include "support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(RunAction, runs_what_the_command_line_says_and_prints_what_happens)
{
    const struct {
        const wchar_t* arguments;
        DWORD exit_code;
        const char* output; // a part of it
        const wchar_t* typed = nullptr;
    } cases[] = {
        {L"check_upgrade_type ProductVersion=1.5.2 INSTALLED_APP_VERSION=1.5.1",
         0,
         "0x04000000 information: Custom action: check_upgrade_type: New: 1.5.2.0 Old: 1.5.1.0\n"
         "0x04000000 information: Custom action: check_upgrade_type: Detected MINOR upgrade.\n"
         "set IS_MINOR_UPGRADE=1\n"
         "returned 0: success\n"},
        {L"check_upgrade_type IS_MINOR_UPGRADE=1", 0, "\ncleared IS_MINOR_UPGRADE\nreturned 0"},
        {L"--no-session check_upgrade_type", 0, "returned 0: success\n"},
        {L"--library absent.dll check_upgrade_type", 1, "run_action: loading the library"},
        {L"--yes stop_search \"CustomActionData=a b\"",
         1603,
         "0x01000000 error: Invalid Search state\nno property changed\nreturned 1603: failure\n"},
        {L"--yes msix_install_package", 87, "returned 87: its CustomActionData cannot be read\n"},
        {L"--list", 0, "\ncheck_upgrade_type                      changes nothing\nclose_and_kill_our_"},
        {L"--list", 0, "\nstop_search                             changes the machine"},
        {L"stop_search", 1, "stop_search changes this machine. Run it? [y/N] Not run.\n", L"no"},
        {L"stop_search", 1603, "Run it? [y/N] 0x01000000 error: Invalid Search state\n", L"yes"},
        {L"--yes", 2, "run_action: no action is named\n\nusage: run_action"},
        {L"check_upgrade_type stop_search", 2, "not understood: stop_search"},
        {L"check_upgrade_type =1.5", 2, "not understood: =1.5"},
        {L"--list check_upgrade_type", 2, "--list runs no action"},
        {L"--no-session check_upgrade_type A=1", 2, "properties need a session"},
        {L"--yes Stop_Search", 2, "run_action: no such action: Stop_Search\n\nbegin_controlled_upgrade "},
    };

    std::wstring tool = test_support::this_program(); // which stands beside it
    tool.replace(tool.rfind(L'\\') + 1, std::wstring::npos, L"run_action.exe");
    for (const auto& [arguments, exit_code, output, typed] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring{arguments}));
        std::wstring command = L'"' + tool + L"\" " + arguments;
        if (typed != nullptr) {
            command = std::wstring{L"cmd.exe /s /c \"echo "} + typed + L'|' + command + L'"';
        }
        auto result = test_support::run_child(command, std::chrono::seconds{20});
        std::erase(result.output, '\r');
        EXPECT_EQ(result.exit_code, exit_code);
        EXPECT_THAT(result.output, testing::HasSubstr(output));
    }
}

} // namespace
