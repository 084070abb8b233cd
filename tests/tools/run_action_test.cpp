#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Matcher;
using testing::StartsWith;
using namespace std::chrono_literals;
using text = Matcher<const std::string&>;

constexpr const char* QUESTION = "stop_search changes this machine. Run it? [y/N] ";

text wrong(const std::string& mistake, const char* help = "usage: run_action")
{
    return AllOf(StartsWith("run_action: " + mistake + "\n\n" + help), testing::Not(HasSubstr("returned")));
}

TEST(RunAction, runs_what_the_command_line_says_and_prints_what_happens)
{
    const struct {
        const wchar_t* arguments;
        DWORD exit_code;
        text output;
        const wchar_t* typed = L""; // at the question
    } cases[] = {
        {L"check_upgrade_type ProductVersion=1.5.2 INSTALLED_APP_VERSION=1.5.1",
         0,
         text{"0x04000000 information: Custom action: check_upgrade_type: Starting version check...\n"
              "0x04000000 information: Custom action: check_upgrade_type: Found INSTALLED_APP_VERSION in "
              "registry.\n"
              "0x04000000 information: Custom action: check_upgrade_type: New: 1.5.2.0 Old: 1.5.1.0\n"
              "0x04000000 information: Custom action: check_upgrade_type: Detected MINOR upgrade.\n"
              "set IS_MINOR_UPGRADE=1\n"
              "returned 0: success\n"}},
        {L"check_upgrade_type IS_MINOR_UPGRADE=1", 0, HasSubstr("cleared IS_MINOR_UPGRADE\nreturned 0")},
        {L"--no-session check_upgrade_type", 0, text{"returned 0: success\n"}},
        {L"--library absent.dll check_upgrade_type", 1, HasSubstr("loading the library")},
        {L"--yes stop_search \"CustomActionData=a b\"",
         1603,
         text{"0x01000000 error: Invalid Search state\nno property changed\nreturned 1603: failure\n"}},
        {L"--yes msix_install_package", 87, HasSubstr("returned 87: its CustomActionData cannot be read\n")},
        {L"--list",
         0,
         AllOf(
             HasSubstr("check_upgrade_type                      changes nothing\n"),
             HasSubstr("stop_search                             changes the machine\n"))},
        {L"stop_search<NUL", 1, text{QUESTION + std::string{"Not run.\n"}}},
        {L"stop_search", 1603, StartsWith(QUESTION + std::string{"0x01000000 error: Inv"}), L"echo y|"},
        {L"--yes", 2, wrong("no action is named")},
        {L"--library", 2, wrong("not understood: --library")},
        {L"check_upgrade_type stop_search", 2, wrong("not understood: stop_search")},
        {L"check_upgrade_type =1.5", 2, wrong("not understood: =1.5")},
        {L"--list check_upgrade_type", 2, wrong("--list runs no action")},
        {L"--no-session check_upgrade_type A=1", 2, wrong("properties need a session")},
        {L"--yes Stop_Search", 2, wrong("no such action: Stop_Search", "begin_controlled_upgrade   ")},
    };

    std::wstring tool = test_support::this_program(); // which stands beside it
    tool.replace(tool.rfind(L'\\') + 1, std::wstring::npos, L"run_action.exe");
    for (const auto& [arguments, exit_code, output, typed] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring{arguments}));
        const std::wstring command = std::wstring{typed} + L'"' + tool + L"\" " + arguments;
        auto result = test_support::run_child(L"cmd.exe /s /c \"" + command + L'"', 20s);
        std::erase(result.output, '\r');
        EXPECT_EQ(result.exit_code, exit_code);
        EXPECT_THAT(result.output, output);
    }
}

} // namespace
