// Runs every action of the built library with its n-th call to Windows failing, once with a passing and once
// with a staying fault. The action must return one of its codes, say what failed as docs/actions.md has it,
// and leave nothing behind.

#include "custom_actions/common/text.h"
#include "support/ascii.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "tests/support/documented_messages.h"
#include "tests/support/faults.h"
#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {
namespace {

using custom_actions::widen;

// Calls whose failure may pass in silence, for one action or for all (""), and why.
struct silence {
    std::string_view action;
    std::string_view calls;
    std::string_view reason;
};

constexpr silence SILENCES[]{
    {"", "CloseHandle CloseServiceHandle MsiCloseHandle RegCloseKey", "it is closed all the same"},
    {"", "MsiCreateRecord MsiRecordSetStringW MsiProcessMessage", "a line that cannot be posted"},
    {"", "EnumWindows FindWindowExW GetClassNameW GetShellWindow", "who is not asked to close is ended"},
    {"", "GetWindowThreadProcessId PostMessageW", "likewise"},
    {"", "TerminateProcess WaitForSingleObject", "the list of what runs decides, not the end of one"},
    {"", "CreateToolhelp32Snapshot Process32FirstW Process32NextW", "what is not listed does not run"},
    {"", "OpenProcess AdjustTokenPrivileges QueryFullProcessImageNameW", "there is another way"},
    {"", "ProcessIdToSessionId", "a program of an unknown session is somebody else's"},
    {"", "MultiByteToWideChar ReadFile", "a program's output is missing"},
    {"", "IsWow64Process", "the library is a 64-bit one"},
    {"", "ITaskSettings::put_Priority", "the programs then start slower"},
    {"begin_controlled_upgrade", "RegGetValueW", "nobody has taken the key"},
    {"close_and_kill_our_processes",
     "Module32FirstW Module32NextW Thread32First Thread32Next",
     "best effort"},
    {"close_and_kill_our_processes", "OpenThreadToken OpenProcessToken GetTokenInformation", "never reports"},
    {"close_and_kill_our_processes", "ConvertSidToStringSidW MsiSetPropertyW", "never reports"},
    {"check_upgrade_type", "MsiGetPropertyW MsiSetPropertyW", "never fails an installation"},
    {"log_app_control_state", "RegGetValueW", "its line has the code"},
    {"restore_built_in_new_context_menu", "RegOpenKeyExW RegDeleteValueW", "never fails a removal"},
    {"iconhandler_add_defaults_to_registry", "AssocQueryStringW RegEnumValueW", "a ProgId fewer"},
    {"iconhandler_add_defaults_to_registry", "RegOpenKeyExW RegQueryValueExW", "unreadable counts as none"},
    {"iconhandler_add_defaults_to_registry", "RegSetValueExW", "an icon fewer, no reason to fail"},
    {"iconhandler_remove_registry", "RegEnumKeyExW RegGetValueW RegOpenKeyExW", "unreadable is not ours"},
    {"iconhandler_remove_registry",
     "RegQueryValueExW RegSetValueExW RegDeleteValueW",
     "unreadable is not ours"},
    {"iconhandler_remove_registry", "RegDeleteKeyExW RegQueryInfoKeyW", "an empty key stays"},
    {"propertyhandler_remove_registry",
     "RegEnumKeyExA RegOpenKeyExA RegQueryValueExA",
     "unreadable is not ours"},
    {"propertyhandler_remove_registry", "RegDeleteKeyA RegDeleteValueA RegQueryInfoKeyA", "a list stays"},
    {"propertyhandler_remove_registry", "RegSetValueExA", "the backup stays"},
    {"propertyhandler_update_registry",
     "GetTokenInformation OpenProcessToken",
     "tried without being elevated"},
    {"propertyhandler_update_registry", "RegOpenKeyExA RegQueryValueExA", "unreadable counts as none"},
    {"propertyhandler_update_registry", "RegCreateKeyExA RegSetValueExA", "a list or a backup is missing"},
};

// A record whose text could not be set, as the installer formats it.
constexpr const wchar_t* EMPTY_RECORD = L"1:  ";

// The standard error of the machine's programs, which fail nothing.
constexpr const wchar_t* STANDARD_ERROR = L"PowerShell Error: <text>";

// Whether `text` has `word` between spaces.
bool has_word(std::string_view text, std::string_view word)
{
    return (' ' + std::string{text} + ' ').find(' ' + std::string{word} + ' ') != std::string::npos;
}

class FaultSweep : public testing::TestWithParam<std::string> {
protected:
    static void TearDownTestSuite() { stage_.reset(); }

    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "starts the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        if (!stage_) {
            stage_.emplace();
        }
    }

    [[nodiscard]] bool may_be_silent(const std::string& failing) const
    {
        return failing.empty() || std::ranges::any_of(SILENCES, [&](const silence& allowed) {
                   return (allowed.action.empty() || allowed.action == GetParam()) &&
                          has_word(allowed.calls, failing);
               });
    }

    // Everything that the action says must be documented. If a call failed it must say so, with its last
    // message if it fails itself.
    void check_messages(std::span<const posted_message> said, const std::string& failing, UINT code)
    {
        bool reported = false;
        bool last_reports = false;
        for (const posted_message& message : said) {
            if (failing == "MsiRecordSetStringW" && message.text == EMPTY_RECORD) {
                continue;
            }
            const auto* const known = documented_.find(message);
            EXPECT_NE(known, nullptr) << "not in docs/actions.md: " << testing::PrintToString(message);
            last_reports = known != nullptr && known->reports_failure && !normal_.contains(known);
            reported = reported || last_reports;
            if (learning_) {
                EXPECT_TRUE(!last_reports || message.text.ends_with(STANDARD_ERROR))
                    << "reports a failure, but nothing failed: " << testing::PrintToString(message);
                normal_.insert(known);
            } else {
                documented_.note(failing, message.text);
            }
        }
        const bool reports = code == ERROR_SUCCESS ? reported : last_reports;
        EXPECT_TRUE(reports || may_be_silent(failing))
            << "returns " << code << " and does not report that " << failing
            << " failed; last message: " << (said.empty() ? "none" : testing::PrintToString(said.back()));
    }

    // Calls the action and checks what it leaves.
    void run(std::size_t nth = 0, call_sweep::fault fault = call_sweep::fault::passing)
    {
        stage_->furnish(GetParam());
        stage_->scheduler.fail(widen(failing_object_call_));
        const auto& messages = stage_->session.messages();
        const std::size_t posted = messages.size();
        stage_->sweep.plan(nth, fault);
        const UINT code = stage_->library.call(GetParam().c_str(), stage_->session.handle());
        const auto& calls = stage_->sweep.calls();
        const std::string failing = nth != 0 && nth <= calls.size() ? calls[nth - 1] : failing_object_call_;
        const bool of_package = code == ERROR_INVALID_PARAMETER && GetParam().starts_with("msix_");
        EXPECT_TRUE(
            code == ERROR_SUCCESS || of_package || (code == ERROR_INSTALL_FAILURE && !failing.empty()))
            << code;
        check_messages(std::span{messages}.subspan(posted), failing, code);
        if (const std::wstring lost = stage_->lost(); !lost.empty()) {
            // What cannot be read is lost, and registration overwrites what it cannot back up.
            const bool removes = GetParam().find("_remove_") != std::string::npos;
            const std::string_view losing =
                removes ? "RegOpenKeyEx RegQueryValueEx" : "RegOpenKeyEx RegQueryValueEx RegSetValueEx";
            EXPECT_TRUE(has_word(losing, failing.substr(0, failing.size() - 1)))
                << testing::PrintToString(lost);
        }
        EXPECT_EQ(stage_->session.open_records(), 0U);
        EXPECT_EQ(stage_->scheduler.objects(), 0U);
        EXPECT_EQ(stage_->scheduler.unexpected(), L"");
        EXPECT_FALSE(thread_is_impersonating());
        RevertToSelf();
        faults_ += stage_->sweep.failed();
    }

    // Checks that a run leaves no handle open. The system may open one on first use and keep it; one that a
    // second run leaves is a leak.
    void run_without_leak(std::size_t nth = 0, call_sweep::fault fault = call_sweep::fault::passing)
    {
        const DWORD before = open_handles();
        run(nth, fault);
        if (const DWORD after = open_handles(); after > before) {
            run(nth, fault);
            EXPECT_LE(open_handles(), after) << "handles left open";
        }
    }

    // The n-th call and those around it. In the later rounds of a loop they are the same.
    [[nodiscard]] std::string surroundings(std::size_t nth) const
    {
        constexpr std::size_t reach = 8;
        std::string around;
        for (std::size_t i = nth - std::min(nth, reach); i != std::min(nth + reach, calls_.size()); ++i) {
            around.append(i + 1 == nth ? "*" : " ").append(calls_[i]);
        }
        return around;
    }

    void inject(std::size_t nth, bool first_round)
    {
        const std::string failing = calls_[nth - 1];
        SCOPED_TRACE(failing + ", call " + std::to_string(nth));
        run_without_leak(nth);
        // A staying fault differs if the function is called again.
        const auto& calls = stage_->sweep.calls();
        if (first_round && nth < calls.size() &&
            std::ranges::count(calls.begin() + static_cast<long>(nth), calls.end(), failing) != 0) {
            SCOPED_TRACE("staying");
            run_without_leak(nth, call_sweep::fault::staying);
        }
    }

    void inject_into_objects(const std::wstring& calls)
    {
        std::istringstream lines{as_ascii(calls)};
        for (std::string call; std::getline(lines, call);) {
            SCOPED_TRACE(call);
            failing_object_call_ = call;
            run_without_leak();
        }
        failing_object_call_.clear();
    }

    inline static std::optional<furnished_machine> stage_;
    documented_messages documented_{GetParam()};
    std::set<const documented_messages::message*> normal_; // what it says if nothing fails
    bool learning_ = true;
    std::string failing_object_call_;
    std::vector<std::string> calls_;
    std::size_t faults_ = 0;
};

TEST_P(FaultSweep, returns_one_of_its_codes_says_what_failed_and_leaves_nothing_behind)
{
    testing::internal::CaptureStdout(); // the action prints a thousand times
    run();                              // the system opens handles on first use
    learning_ = false;
    run_without_leak();
    calls_ = stage_->sweep.calls();
    const std::wstring object_calls = stage_->scheduler.calls();
    // A third round of a loop would show nothing that the first two have not.
    std::map<std::string, int> rounds;
    for (std::size_t nth = 1; nth <= calls_.size() && !HasFailure(); ++nth) {
        if (const int round = ++rounds[surroundings(nth)]; round <= 2) {
            inject(nth, round == 1);
        }
    }
    inject_into_objects(object_calls);
    EXPECT_GE(faults_, 2U);
    if (!HasFailure()) {
        EXPECT_EQ(documented_.never_said(), "") << "documented for a failing call, but not said";
    }
    if (const std::string output = testing::internal::GetCapturedStdout(); HasFailure()) {
        std::cout << output;
    }
    std::cout << GetParam() << ": " << calls_.size() << " calls, " << faults_ << " faults\n";
}

INSTANTIATE_TEST_SUITE_P(
    Exports,
    FaultSweep,
    testing::ValuesIn(pe_image{loaded_library{}.module()}.exported_names()),
    [](const auto& tested) { return tested.param; });

} // namespace
} // namespace test_support
