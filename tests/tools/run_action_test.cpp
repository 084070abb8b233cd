#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using test_support::child_result;
using testing::AllOf;
using testing::HasSubstr;
using testing::Matcher;
using testing::Not;
using testing::StartsWith;
using namespace std::chrono_literals;

// The tool stands beside the test programs.
std::wstring tool(const std::wstring& arguments)
{
    std::wstring path = test_support::this_program();
    path.resize(path.rfind(L'\\') + 1);
    return L'"' + path + L"run_action.exe\" " + arguments;
}

child_result run(const std::wstring& command_line)
{
    child_result result = test_support::run_child(command_line, 20s);
    std::erase(result.output, '\r');
    return result;
}

TEST(RunAction, prints_what_an_action_says_changes_and_returns)
{
    const child_result minor =
        run(tool(L"check_upgrade_type ProductVersion=1.5.2 INSTALLED_APP_VERSION=1.5.1"));
    EXPECT_EQ(minor.exit_code, 0U);
    EXPECT_EQ(
        minor.output,
        "0x04000000 information: Custom action: check_upgrade_type: Starting version check...\n"
        "0x04000000 information: Custom action: check_upgrade_type: Found INSTALLED_APP_VERSION in "
        "registry.\n"
        "0x04000000 information: Custom action: check_upgrade_type: New: 1.5.2.0 Old: 1.5.1.0\n"
        "0x04000000 information: Custom action: check_upgrade_type: Detected MINOR upgrade.\n"
        "set IS_MINOR_UPGRADE=1\n"
        "returned 0: success\n");
}

TEST(RunAction, runs_any_action_as_the_command_line_says)
{
    const struct {
        const wchar_t* arguments;
        DWORD exit_code;
        Matcher<const std::string&> output;
    } cases[] = {
        {L"check_upgrade_type ProductVersion=2.0 IS_MINOR_UPGRADE=1",
         0,
         HasSubstr("cleared IS_MINOR_UPGRADE\nreturned 0")},
        {L"--no-session check_upgrade_type", 0, Matcher<const std::string&>{"returned 0: success\n"}},
        {L"notify_restart_recommended",
         0,
         AllOf(
             StartsWith("0x03000040 notice: Quorbel has been removed."), HasSubstr("no property changed\n"))},
        {L"--library custom_actions_of_nobody.dll check_upgrade_type", 1, HasSubstr("loading the library")},
        {L"--yes stop_search \"CustomActionData=a b\"",
         1603,
         Matcher<const std::string&>{"0x01000000 error: Invalid Search state\n"
                                     "no property changed\n"
                                     "returned 1603: failure\n"}},
        {L"--yes msix_install_package", 87, HasSubstr("returned 87: its CustomActionData cannot be read\n")},
        {L"--list",
         0,
         AllOf(
             HasSubstr("check_upgrade_type                      changes nothing\n"),
             HasSubstr("stop_search                             changes the machine\n"))},
    };

    for (const auto& [arguments, exit_code, output] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring{arguments}));
        const child_result result = run(tool(arguments));
        EXPECT_EQ(result.exit_code, exit_code);
        EXPECT_THAT(result.output, output);
    }
}

TEST(RunAction, asks_before_it_changes_the_machine)
{
    const std::wstring asking = tool(L"stop_search");
    const std::string question = "stop_search changes this machine. Run it? [y/N] ";
    for (const std::wstring& command : {asking + L"<NUL", L"echo no|" + asking}) {
        const child_result result = run(L"cmd.exe /s /c \"" + command + L'"');
        EXPECT_EQ(result.exit_code, 1U);
        EXPECT_EQ(result.output, question + "Not run.\n");
    }
    const child_result agreed = run(L"cmd.exe /s /c \"echo y|" + asking + L'"');
    EXPECT_EQ(agreed.exit_code, 1603U);
    EXPECT_THAT(agreed.output, StartsWith(question + "0x01000000 error: Invalid Search state\n"));
}

TEST(RunAction, explains_itself_where_the_command_line_is_wrong)
{
    const struct {
        const wchar_t* arguments;
        const char* mistake;
        const char* help = "usage: run_action";
    } cases[] = {
        {L"", "no action is named"},
        {L"--yes", "no action is named"},
        {L"--library", "not understood: --library"},
        {L"--no check_upgrade_type", "not understood: --no"},
        {L"check_upgrade_type stop_search", "not understood: stop_search"},
        {L"check_upgrade_type =1.5", "not understood: =1.5"},
        {L"--list check_upgrade_type", "--list runs no action"},
        {L"--no-session check_upgrade_type ProductVersion=1.5", "properties need a session"},
        {L"--yes Check_Upgrade_Type", "no such action: Check_Upgrade_Type", "\ncheck_upgrade_type  "},
    };

    for (const auto& [arguments, mistake, help] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring{arguments}));
        const child_result result = run(tool(arguments));
        EXPECT_EQ(result.exit_code, 2U);
        EXPECT_THAT(
            result.output,
            AllOf(
                StartsWith(std::string{"run_action: "} + mistake + "\n\n"),
                HasSubstr(help),
                Not(HasSubstr("returned"))));
    }
}

} // namespace
