// Runs every action of the built library with its n-th call to Windows failing, once with a passing and once
// with a staying fault. The action must return one of its codes, say what failed as docs/actions.md has it,
// and leave nothing behind. docs/actions.md must have no other texts than the library.
//
// Ends each upgrade phase before each of its calls that change something, as if its process had been killed,
// then rolls back: the machine must be in the state that the markers on the disk promise.

#include "custom_actions/common/text.h"
#include "support/ascii.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "tests/support/faults.h"
#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <ranges>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test_support {
namespace {

// What may fail in silence: how the names of the actions begin, the calls as a regular expression, and why.
constexpr const char* SILENCES[][3]{
    {"", "(Close(Service)?|MsiClose)Handle|RegCloseKey", "it is closed all the same"},
    {"", "MsiCreateRecord|MsiRecordSetStringW|MsiProcessMessage", "a line that cannot be posted"},
    {"", "EnumWindows|FindWindowExW|GetShellWindow", "who is not asked to close is ended"},
    {"", "GetClassNameW|GetWindowThreadProcessId|PostMessageW", "likewise"},
    {"", "TerminateProcess|WaitForSingleObject", "the list of what runs decides, not the end of one"},
    {"", "CreateToolhelp32Snapshot|Process32(First|Next)W", "what is not listed does not run"},
    {"", "OpenProcess|AdjustTokenPrivileges|QueryFullProcessImageNameW", "there is another way"},
    {"", "ProcessIdToSessionId", "a program of an unknown session is somebody else's"},
    {"", "MultiByteToWideChar|ReadFile", "a program's output is missing"},
    {"", "IsWow64Process", "the library is a 64-bit one"},
    {"", "ITaskSettings::put_Priority", "the programs then start slower"},
    {"begin_controlled_upgrade", "RegGetValueW", "nobody has taken the key"},
    {"close_and_kill", "Module32(First|Next)W|Thread32(First|Next)", "best effort"},
    {"close_and_kill", "Open(Thread|Process)Token|GetTokenInformation|ConvertSid.*|MsiSet.*", "likewise"},
    {"check_upgrade_type", "Msi[GS]etPropertyW", "never fails an installation"},
    {"log_app_control_state", "RegGetValueW", "its line has the code"},
    {"restore_built_in_new", "RegOpenKeyExW|RegDeleteValueW", "never fails a removal"},
    {"iconhandler_add", "AssocQueryStringW|RegEnumValueW", "a ProgId fewer"},
    {"iconhandler_", "Reg(EnumKeyEx|GetValue|OpenKeyEx|QueryValueEx)W", "unreadable is none"},
    {"iconhandler_", "Reg(Delete(KeyEx|Value)|QueryInfoKey|SetValueEx)W", "an icon stays"},
    {"propertyhandler_update", "GetTokenInformation|OpenProcessToken", "tried without being elevated"},
    {"propertyhandler_", "Reg(EnumKey|OpenKey|QueryValue)ExA", "unreadable is none"},
    {"propertyhandler_", "Reg(CreateKeyEx|SetValueEx|Delete(Key|Value)|QueryInfoKey)A", "a list stays"}};

// Whether `text` has `word`, which has no special characters.
bool has_word(std::string_view text, const std::string& word)
{
    return std::regex_search(text.begin(), text.end(), std::regex{"\\b" + word + "\\b"});
}

// A row of a table of docs/actions.md that begins with a text.
struct documented_row {
    std::string actions; // that its section is for
    std::string heading; // of the first column
    std::string text;    // there, with <placeholders>
    std::string calls;   // the functions whose failure it reports, in backticks; empty if it reports none
    std::string others;  // the cells after that
    std::regex whole;    // what as_documented() returns for a message with this text
};

// All of them, in the document's order.
std::vector<documented_row> documented_rows()
{
    const std::regex header{R"(\| ([A-Z][a-z ]+) \| (Call \|)?.*)"};
    const std::regex row{R"(\| `([^`]+)` \| ([^|]*) \|(.*))"};
    std::vector<documented_row> rows;
    std::string actions;
    std::string heading;
    bool has_calls = false;
    std::ifstream file{SOURCE_DIR "/docs/actions.md"};
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) {
            actions = line;
        } else if (line.starts_with("For `") || line.starts_with("and for `")) {
            actions += line;
        } else if (std::smatch cells; std::regex_match(line, cells, header)) {
            heading = cells[1];
            has_calls = cells[2].matched;
        } else if (std::regex_match(line, cells, row)) {
            rows.push_back({actions, heading, cells[1], has_calls ? cells[2].str() : "", cells[3], {}});
        }
    }
    return rows;
}

// The heading "Message" stands for a log line and an error, each with a prefix.
constexpr const char* BOTH_PLACES = "(?:Log line: Controlled|Error: Quorbel) upgrade";

// A regular expression for a text, with numbers and texts for its placeholders. "<messages>" stays as it is.
std::string pattern_of(const std::string& text)
{
    std::string pattern = std::regex_replace(text, std::regex{R"([.^$|()\[\]{}*+?\\])"}, R"(\$&)");
    pattern = std::regex_replace(pattern, std::regex{"<(n|code|ms|ids?)>"}, R"([\d ]+)");
    return std::regex_replace(pattern, std::regex{"<(?!messages)[A-Za-z ]+>"}, "[^]+");
}

// A message after the heading that it has in docs/actions.md.
std::string as_documented(const posted_message& posted)
{
    static std::map<UINT, std::string> headings{
        {INSTALLMESSAGE_INFO, "Log line"},
        {INSTALLMESSAGE_ERROR, "Error"},
        {INSTALLMESSAGE_USER | UINT{MB_ICONINFORMATION}, "Notice"}};
    return headings[posted.type] + ": " + as_ascii(posted.text);
}

// The row of the first table for this action, and those of all that it says.
std::vector<documented_row> documented_rows_of(const std::string& action)
{
    std::vector<documented_row> rows = documented_rows();
    std::erase_if(rows, [&](const documented_row& row) {
        return row.text != action && !has_word(row.actions, action);
    });
    std::string any;
    for (const documented_row& row : rows) {
        if (row.heading == "Message" && !row.text.ends_with("<messages>")) {
            any += (any.empty() ? "" : "|") + pattern_of(row.text);
        }
    }
    // Several in one message are separated by "; ", and so is what failed later.
    const std::string several = "(?:(?:; rollback preparation: )?(?:" + any + ")(?:; )?)+";
    for (documented_row& row : rows) {
        row.whole = (row.heading == "Message" ? BOTH_PLACES : row.heading) + ": " +
                    std::regex_replace(pattern_of(row.text), std::regex{"<messages>"}, several);
    }
    return rows;
}

class FaultSweep : public furnished_test, public testing::WithParamInterface<std::string> {
protected:
    // Every message from this one on must be documented. If a call failed the action must say so, with its
    // last message if it fails itself.
    void check_messages(std::size_t from, const std::string& failing, UINT code)
    {
        bool reported = false;
        bool last_reports = false;
        std::string last;
        for (const posted_message& message : stage->session.messages() | std::views::drop(from)) {
            if (failing == "MsiRecordSetStringW" && message.text == L"1:  ") {
                continue; // a record whose text could not be set, as the installer formats it
            }
            last = as_documented(message);
            const auto known = std::ranges::find_if(
                documented_, [&](const documented_row& row) { return std::regex_match(last, row.whole); });
            EXPECT_TRUE(known != documented_.end()) << "not in docs/actions.md: " << last;
            last_reports = known != documented_.end() && !known->calls.empty();
            EXPECT_FALSE(last_reports && failing.empty()) << "nothing failed, but it says: " << last;
            reported = reported || last_reports;
            // A function whose failure was reported loses its backticks.
            for (documented_row& row : documented_) {
                const std::size_t call = row.calls.find('`' + failing + '`');
                if (call != std::string::npos &&
                    last.find(row.text.substr(0, row.text.find('<'))) != std::string::npos) {
                    row.calls.replace(call, failing.size() + 2, failing);
                }
            }
        }
        const bool reports = code == ERROR_SUCCESS ? reported : last_reports;
        const auto allows_silence = [&](const auto& row) {
            return GetParam().starts_with(row[0]) && std::regex_match(failing, std::regex{row[1]});
        };
        EXPECT_TRUE(failing.empty() || reports || std::ranges::any_of(SILENCES, allows_silence))
            << "returns " << code << " and does not report " << failing << "; last message: " << last;
    }

    // Calls the action while its n-th call fails, and checks what it says and leaves.
    void run(std::size_t nth, call_sweep::fault fault)
    {
        std::string failing = calls_[nth].find("::") == std::string::npos ? "" : calls_[nth]; // of an object
        stage->furnish(GetParam());
        stage->scheduler.fail(custom_actions::widen(failing));
        stage->sweep.plan(failing.empty() ? nth : 0, fault);
        const std::size_t posted = stage->session.messages().size();
        const UINT code = stage->library.call(GetParam().c_str(), stage->session.handle());
        if (stage->sweep.failed() != 0) {
            failing = stage->sweep.calls()[nth - 1]; // not always calls_[nth]: threads run side by side
        }
        const std::string& returns = documented_.at(0).others;
        EXPECT_TRUE(failing.empty() ? code == ERROR_SUCCESS : has_word(returns, std::to_string(code)))
            << "returns " << code << ", not one of: " << returns;
        check_messages(posted, failing, code);
        EXPECT_EQ(stage->machine.open_records(), 0U);
        EXPECT_EQ(stage->scheduler.objects(), 0U);
        EXPECT_FALSE(thread_is_impersonating());
        RevertToSelf();
        faults_ += stage->sweep.failed();
    }

    // After all runs: checks that the document has nothing that the action cannot say. A text counts as the
    // library's if all of its parts between placeholders, labels and numbers are in the file.
    void check_document() const
    {
        const HMODULE module = stage->library.module();
        const DWORD size = pe_image{module}.headers().OptionalHeader.SizeOfImage;
        std::string image{reinterpret_cast<const char*>(module), size};
        std::erase(image, '\0'); // of UTF-16
        const bool swept = !HasFailure();
        const std::regex between{R"( ?<[A-Za-z ]+>|: |, |=|[0-9.]+| \(|'|\[propertyhandler\] )"};
        for (const auto& [actions, heading, text, calls, others, whole] : documented_) {
            EXPECT_TRUE(!swept || calls.find('`') == std::string::npos)
                << "when a function in backticks fails: " << calls << ", it never says: " << text;
            for (std::sregex_token_iterator at{text.begin(), text.end(), between, -1}, end; at != end; ++at) {
                EXPECT_TRUE(image.find(*at) != std::string::npos) << '"' << *at << "\" of \"" << text << '"';
            }
        }
    }

    // Checks that a run leaves no handle open. The system may open one on first use and keep it; one that a
    // second run leaves is a leak.
    void run_without_leak(std::size_t nth = 0, call_sweep::fault fault = call_sweep::fault::passing)
    {
        const char* const lasting = fault == call_sweep::fault::staying ? ", staying" : "";
        SCOPED_TRACE(calls_[nth] + ", call " + std::to_string(nth) + lasting);
        const DWORD before = open_handles();
        run(nth, fault);
        if (const DWORD after = open_handles(); after > before) {
            run(nth, fault);
            EXPECT_LE(open_handles(), after) << "handles left open";
        }
    }

    std::vector<documented_row> documented_ = documented_rows_of(GetParam());
    std::vector<std::string> calls_{"none"}; // the library's, counted from 1, and the objects'
    std::size_t faults_ = 0;
};

TEST_P(FaultSweep, returns_one_of_its_codes_says_what_failed_and_leaves_nothing_behind)
{
    testing::internal::CaptureStdout(); // the action prints a thousand times
    run_without_leak();
    run_without_leak();
    const auto& calls = stage->sweep.calls();
    calls_.insert(calls_.end(), calls.begin(), calls.end());
    std::istringstream of_objects{as_ascii(stage->scheduler.calls())};
    calls_.insert(calls_.end(), std::istream_iterator<std::string>{of_objects}, {});
    std::map<std::pair<std::size_t, std::vector<std::string>>, int> rounds;
    for (std::size_t nth = 1; nth != calls_.size() && !HasFailure(); ++nth) {
        // In the later rounds of a loop the calls around it are the same. A third one would show nothing that
        // the first two have not.
        const std::size_t preceding = std::min<std::size_t>(nth, 8);
        const auto around = calls_ | std::views::drop(nth - preceding) | std::views::take(16);
        const int round = ++rounds[{preceding, {around.begin(), around.end()}}];
        if (round <= 2) {
            run_without_leak(nth);
        }
        // A staying fault differs if the function is called again.
        if (round == 1 && std::ranges::count(calls | std::views::drop(nth), calls_[nth]) != 0) {
            run_without_leak(nth, call_sweep::fault::staying);
        }
    }
    EXPECT_GE(faults_, 2U);
    check_document();
    if (const std::string output = testing::internal::GetCapturedStdout(); HasFailure()) {
        std::cout << output;
    }
    std::cout << GetParam() << ": " << calls_.size() - 1 << " calls, " << faults_ << " faults\n";
}

INSTANTIATE_TEST_SUITE_P(
    Exports,
    FaultSweep,
    testing::ValuesIn(pe_image{loaded_library{}.module()}.exported_names()),
    [](const auto& tested) { return tested.param; });

constexpr const wchar_t* MAINTENANCE_KEY = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";

// Writing is not among them: a marker exists as soon as its file does.
bool changes_something(const std::string& call)
{
    static const std::regex changing{
        "(Change|Control|Copy|Create(Dir|File|Proc)|Post|Reg[CDS][er]|Start|Term).*"};
    return std::regex_match(call, changing);
}

class CrashSweep : public furnished_test, public testing::WithParamInterface<const char*> {
protected:
    static DWORD WINAPI run_phase(void* /*unused*/)
    {
        return stage->library.call(GetParam(), stage->session.handle());
    }

    // Furnishes the machine, runs the phase on a thread that ends before the n-th call, and returns its
    // result.
    static DWORD kill_at(std::size_t nth)
    {
        stage->furnish(GetParam());
        stage->sweep.plan(nth, call_sweep::fault::ends_thread);
        const custom_actions::kernel_handle thread{CreateThread(nullptr, 0, run_phase, nullptr, 0, nullptr)};
        WaitForSingleObject(thread.get(), INFINITE);
        DWORD result = 0;
        GetExitCodeThread(thread.get(), &result);
        return result;
    }

    static void check_rollback()
    {
        std::set<std::wstring> markers = stage->markers();
        const bool stopped = markers.contains(L"shutdown-started");
        const auto running = stage->machine.running;
        const std::size_t posted = stage->session.messages().size();
        stage->sweep.plan(0, call_sweep::fault::passing);
        EXPECT_EQ(stage->library.call("rollback_controlled_upgrade", stage->session.handle()), 0U);
        const auto restored = std::ranges::count_if(
            stage->session.messages() | std::views::drop(posted), [](const auto& message) {
                return message.text.starts_with(L"Controlled upgrade: Starting rollback-");
            });
        EXPECT_EQ(restored, markers.contains(L"packages-touched") ? 8 : 0) << "packages";
        EXPECT_EQ(stage->machine.search_states.back(), DWORD{SERVICE_RUNNING});
        EXPECT_EQ(stage->machine.search_start, DWORD{SERVICE_AUTO_START});
        EXPECT_TRUE(stage->machine.search_delayed);
        EXPECT_FALSE(planted_value(HKEY_LOCAL_MACHINE, MAINTENANCE_KEY, L"Process")) << "the key stays";
        if (stopped) {
            markers.insert(L"rollback-complete");
            EXPECT_EQ(std::ranges::count(stage->machine.running, stage->explorer.id()), 1)
                << "Explorer must run";
        } else {
            EXPECT_EQ(stage->machine.running, running);
        }
        EXPECT_EQ(stage->markers(), markers);
    }
};

TEST_P(CrashSweep, is_undone_wherever_it_ends)
{
    EXPECT_EQ(kill_at(0), DWORD{ERROR_SUCCESS});
    const std::vector<std::string> calls = stage->sweep.calls();
    std::size_t killed = 0;
    for (std::size_t nth = 1; nth <= calls.size() && !HasFailure(); ++nth) {
        if (changes_something(calls[nth - 1])) {
            SCOPED_TRACE("ended before " + calls[nth - 1] + ", call " + std::to_string(nth));
            EXPECT_EQ(kill_at(nth), DWORD{call_sweep::KILLED});
            check_rollback();
            ++killed;
        }
    }
    EXPECT_GT(killed, 10U);
}

INSTANTIATE_TEST_SUITE_P(
    Phases,
    CrashSweep,
    testing::Values("begin_controlled_upgrade", "install_upgrade_packages", "finish_controlled_upgrade"),
    [](const auto& tested) { return std::string{tested.param}; });

} // namespace
} // namespace test_support
