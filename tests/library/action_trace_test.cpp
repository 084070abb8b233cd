// What each action does to the machine and logs, in order, with the rights that it asks for and what it does
// under another identity: action_traces.txt has it for a furnished machine on which nothing fails.

#include "custom_actions/common/text.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "support/ascii.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"
#include "support/pe_image.h"
#include "tests/support/faults.h"
#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>
#include <taskschd.h>
#include <wincrypt.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace test_support {
namespace {

using custom_actions::controlled_upgrade::UPGRADE_PACKAGES;

// The calls that are noted, each with its arguments in order: rights asked for (r), and what is shown: a text
// (t), a number in decimal (d) or hexadecimal (x), the process that a handle is of (p) or that owns a window
// (w), a privilege's state (a), a number pointed to (n), a desktop (l), a script (s), whether it is given
// (?), or nothing (- and .).
constexpr const char* NOTED =
    "AdjustTokenPrivileges --a  ChangeServiceConfig2W -dn  ChangeServiceConfigW --d "
    "CoInitializeEx -d  CoUninitialize .  ControlService -d "
    "ConvertStringSecurityDescriptorToSecurityDescriptorW t  CopyFileW ttd  CreateDirectoryW t "
    "CreateEnvironmentBlock --d  CreateFileW tr--dx  CreateProcessAsUserW -ts--dx?tl "
    "CreateProcessW -t--dx?  CreateToolhelp32Snapshot r  ImpersonateLoggedOnUser . "
    "MsiSetPropertyW -tt  MsiSetTargetPathW -tt  OpenProcess r  OpenProcessToken -r "
    "OpenSCManagerW --r  OpenServiceW --r  OpenThreadToken -r  PostMessageW wx  PostThreadMessageW dx "
    "RegCreateKeyExA -----r  RegCreateKeyExW -----r  RegDeleteKeyExW -t  RegOpenKeyExA ---r "
    "RegOpenKeyExW ---r  RegSetValueExW -t-d  SetHandleInformation -xx  SetThreadToken . "
    "SHChangeNotify xx  Sleep d  StartServiceW .  TerminateProcess pd  WaitForSingleObject pd ";

// What is done again and again, and how it is shown.
const std::pair<std::wregex, const wchar_t*> FOLDED[]{
    {std::wregex{LR"(CreateEnvironmentBlock 0
CreateProcessAsUserW <powershell> (.*) 0 8000400 own C:\\windows\\system32 winsta0\\default
logs Controlled upgrade: Starting (\S+) for <user>
WaitForSingleObject PID 0 (\d+)
ImpersonateLoggedOnUser
SetThreadToken
logs Controlled upgrade: \2 finished in 0 ms, exit (\d); log: <workspace>\\output\\\2.log
)"},
     L"(runs $2 for $3 ms, exit $4: $1)\n"},
    {std::wregex{LR"(AdjustTokenPrivileges 2
ImpersonateLoggedOnUser
SetThreadToken
AdjustTokenPrivileges 0
logs Controlled upgrade: Upgrade processes: closing <main> <helper> <explorer>
PostMessageW PID <explorer> 10
PostMessageW PID <explorer> 10
PostMessageW PID <main> 10
PostMessageW PID <main> 10
WaitForSingleObject PID <helper> 5000
TerminateProcess PID <helper> 1
WaitForSingleObject PID <helper> 5000
WaitForSingleObject PID <explorer> 0
TerminateProcess PID <explorer> 1
WaitForSingleObject PID <explorer> 5000
WaitForSingleObject PID <main> 0
WaitForSingleObject PID <helper> 0
WaitForSingleObject PID <explorer> 0
AdjustTokenPrivileges 2
AdjustTokenPrivileges 0
)"},
     L"(closes all three)\n"},
    {std::wregex{L"AdjustTokenPrivileges 2\nAdjustTokenPrivileges 0\n"}, L"(finds no host)\n"},
    {std::wregex{LR"(RegDeleteKeyExW SOFTWARE.Brenmoor.Quorbel.InstallerMaintenance)"},
     L"(releases the key)"},
    {std::wregex{L"RegSetValueExW Created 11\nRegSetValueExW Process 4"}, L"(takes the key)"},
    {std::wregex{L"logs Controlled upgrade: (.*)\nposts 1000000 Quorbel upgrade: \\1\n"}, L"(fails: $1)\n"},
    {std::wregex{LR"(CreateEnvironmentBlock 0
CreateProcessAsUserW C:.windows.explorer.exe "C:.windows.explorer.exe" 0 400 own C:.windows winsta0.default
Sleep 250)"},
     L"(starts Explorer)"}};

// The cmdlets and packages in the script that a command line has, each once; a command line without a script
// as it is.
std::wstring cmdlets(const std::wstring& command_line)
{
    const std::size_t encoded = command_line.find(L"-EncodedCommand ");
    if (encoded == std::wstring::npos) {
        return command_line;
    }
    std::wstring script(command_line.size(), L'\0');
    auto size = static_cast<DWORD>(script.size() * sizeof(wchar_t));
    CryptStringToBinaryW(
        command_line.c_str() + encoded + 16,
        0,
        CRYPT_STRING_BASE64,
        reinterpret_cast<BYTE*>(script.data()),
        &size,
        nullptr,
        nullptr);
    std::wstring names;
    const std::wregex cmdlet{L"\\b[A-Z][a-z]+-[A-Z][a-zA-Z]+|'[^']*[.]msix'"};
    for (std::wsregex_iterator found{script.begin(), script.end(), cmdlet}, end; found != end; ++found) {
        names += names.find(found->str()) == std::wstring::npos ? L' ' + found->str() : L"";
    }
    return names.substr(1);
}

// NOLINTBEGIN(performance-no-int-to-ptr): pointers and handles passed as words
std::wstring shown(char kind, ULONG_PTR word)
{
    std::wostringstream text;
    if (kind == 't') {
        text << (word == 0 ? L"(none)" : reinterpret_cast<const wchar_t*>(word));
    } else if (kind == 'd' || kind == 'x') {
        text << (kind == 'x' ? std::hex : std::dec) << static_cast<DWORD>(word);
    } else if (kind == 'p') {
        text << L"PID " << GetProcessId(reinterpret_cast<HANDLE>(word));
    } else if (kind == 'w') {
        DWORD id = 0;
        GetWindowThreadProcessId(reinterpret_cast<HWND>(word), &id);
        text << L"PID " << id;
    } else if (kind == 'a') {
        text << reinterpret_cast<const TOKEN_PRIVILEGES*>(word)->Privileges[0].Attributes;
    } else if (kind == 's') {
        text << cmdlets(reinterpret_cast<const wchar_t*>(word));
    } else if (kind == 'n') {
        text << *reinterpret_cast<const DWORD*>(word);
    } else if (kind == 'l') {
        text << reinterpret_cast<const STARTUPINFOW*>(word)->lpDesktop;
    } else {
        text << (word == 0 ? L"none" : L"own");
    }
    return text.str();
}

// NOLINTEND(performance-no-int-to-ptr)

using stage = furnished_machine;

struct scenario {
    std::string title; // "ACTION" or "ACTION, what is different"
    void (*change)(stage&);
};

void change_nothing(stage& /*on*/) {}

void run_elsewhere(stage& on, const wchar_t* program, const wchar_t* library)
{
    on.machine.programs[4] = {program, library, 0};
    on.machine.running.push_back(4);
}

void plant_policy(DWORD type, std::string number)
{
    number.resize(sizeof(DWORD));
    const std::wstring key = LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)";
    plant_value(HKEY_LOCAL_MACHINE, key, L"VerifiedAndReputablePolicyState", number, type);
}

void offer(stage& on, const wchar_t* version, const wchar_t* installed)
{
    on.session.set_property(L"ProductVersion", version);
    on.session.set_property(L"INSTALLED_APP_VERSION", installed);
}

const scenario OTHERS[]{
    {"check_upgrade_type, 1.4.2.0 over 1.4.1.7", [](stage& on) { offer(on, L"1.4.2.0", L"1.4.1.7"); }},
    {"check_upgrade_type, 1.5 over 1.4.9.9", [](stage& on) { offer(on, L"1.5", L"1.4.9.9"); }},
    {"check_upgrade_type, 1.3 over 1.4", [](stage& on) { offer(on, L"1.3", L"1.4"); }},
    {"check_upgrade_type, 2.4 over 1.4", [](stage& on) { offer(on, L"2.4", L"1.4"); }},
    {"check_upgrade_type, over one without a version", [](stage& on) { offer(on, L"0.1.20", L""); }},
    {"log_app_control_state, on", [](stage&) { plant_policy(REG_DWORD, "\1"); }},
    {"log_app_control_state, evaluation", [](stage&) { plant_policy(REG_DWORD, "\2"); }},
    {"log_app_control_state, off", [](stage&) { plant_policy(REG_DWORD, ""); }},
    {"log_app_control_state, unknown", [](stage&) { plant_policy(REG_DWORD, "\3"); }},
    {"log_app_control_state, not a number", [](stage&) { plant_policy(REG_BINARY, "\1"); }},
    {"close_and_kill_our_processes, another program keeps the hook",
     [](stage& on) {
         on.machine.running = {0};
         run_elsewhere(on, L"Other.exe", L"quorbel.windoworganizer.x64.DLL");
     }},
    {"restore_explorer, it runs", [](stage& on) { on.machine.running.push_back(on.explorer.id()); }},
    {"restore_explorer, one runs in another session",
     [](stage& on) { run_elsewhere(on, L"EXPLORER.EXE", L""); }},
    {"restore_explorer, it does not come back",
     [](stage& on) { on.machine.programs.erase(on.explorer.id()); }},
    {"restore_explorer, nothing was recorded", [](stage& on) { on.pass(L"unchanged"); }},
    {"restore_explorer, the record has no session", [](stage& on) { on.pass(L"|S-1-5-18"); }},
    {"restore_explorer, the record is no number", [](stage& on) { on.pass(L"1a|S-1-5-18"); }},
    {"restore_explorer, session 0", [](stage& on) { on.pass(L"00|S-1-5-18"); }},
    {"restore_explorer, another user", [](stage& on) { on.pass(L"1|" + on.upgrade.user_sid + L"1"); }},
    {"capture_search_state, it stops", [](stage& on) { on.machine.search_states = {3}; }},
    {"capture_search_state, not installed", [](stage& on) { on.machine.search_states.clear(); }},
    {"capture_search_state, no rollback",
     [](stage& on) { on.session.set_property(L"RollbackDisabled", L"0"); }},
    {"stop_search, it is paused", [](stage& on) { on.machine.search_states = {7, 7, 3, 1}; }},
    {"stop_search, it stops by itself", [](stage& on) { on.machine.search_states = {3, 3, 3, 1}; }},
    {"stop_search, it is gone", [](stage& on) { on.machine.search_states.clear(); }},
    {"stop_search, not captured", [](stage& on) { on.pass(L"Running"); }},
    {"restore_search, it starts by itself", [](stage& on) { on.machine.search_states = {2, 2, 4}; }},
    {"restore_search, it is gone", [](stage& on) { on.machine.search_states.clear(); }},
    {"restore_search, was not running", [](stage& on) { on.pass(L"unchanged"); }},
    {"early_close_upgrade, nothing runs", [](stage& on) { on.machine.running = {0}; }},
    {"early_close_upgrade, the main program runs in another session",
     [](stage& on) { on.machine.programs[on.main.id()].session = 2; }},
    {"early_close_upgrade, the task cannot be registered",
     [](stage& on) { on.scheduler.fail(L"ITaskFolder::RegisterTaskDefinition"); }},
    {"early_close_upgrade, another user's programs",
     [](stage& on) {
         const std::wstring others =
             std::regex_replace(on.upgrade_data, std::wregex{L"S-1-[-0-9]*"}, L"S-1-5-18");
         on.session.set_property(L"begin_controlled_upgrade", others);
     }},
    {"recover_early_upgrade, no task",
     [](stage& on) { on.session.set_property(L"QblEarlyRecoveryTask", L""); }},
    {"recover_early_upgrade, not a task of ours",
     [](stage& on) { on.session.set_property(L"QblEarlyRecoveryTask", L"qbl" + std::wstring(53, L'0')); }},
    {"recover_early_upgrade, it keeps running", [](stage& on) { on.scheduler.stay_in(TASK_STATE_RUNNING); }},
    {"recover_early_upgrade, it fails", [](stage& on) { on.scheduler.end_with(1); }},
    {"begin_controlled_upgrade, the main program runs in another session",
     [](stage& on) { on.machine.programs[on.main.id()].session = 2; }},
    {"begin_controlled_upgrade, the helper's session shows under its user's identity alone, and is another",
     [](stage& on) {
         on.machine.programs[on.helper.id()].session = 2;
         on.machine.programs[on.helper.id()].hidden = true;
     }},
    {"begin_controlled_upgrade, a host runs in session 0",
     [](stage& on) { on.machine.programs[on.explorer.id()].session = 0; }},
    {"begin_controlled_upgrade, another one is active",
     [](stage&) { custom_actions::controlled_upgrade::upgrade_guard(true); }},
    {"install_upgrade_packages, nothing was saved", [](stage& on) { on.leave_markers({}); }},
    {"install_upgrade_packages, a program restarts",
     [](stage& on) {
         on.machine.running = {on.helper.id()};
         on.machine.restarts = true;
     }},
    {"finish_controlled_upgrade, nothing was verified", [](stage& on) { on.leave_markers({}); }},
    {"finish_controlled_upgrade, a script fails", [](stage& on) { on.machine.script_result = 1; }},
    {"finish_controlled_upgrade, Windows Search was stopped",
     [](stage& on) {
         on.machine.running = {0};
         on.leave_markers({"packages-verified", "search-start-type-2"});
     }},
    {"rollback_controlled_upgrade, nothing was stopped",
     [](stage& on) { on.leave_markers({"backup-complete", "packages-touched"}); }},
    {"rollback_controlled_upgrade, nothing was done", [](stage& on) { on.leave_markers({}); }},
    {"rollback_controlled_upgrade, no package was touched, Windows Search was on demand",
     [](stage& on) {
         on.leave_markers({"shutdown-started", "search-start-type-3", "search-delayed-start"});
     }},
    {"rollback_controlled_upgrade, Windows Search is not installed",
     [](stage& on) {
         on.machine.running = {0};
         on.machine.search_states.clear();
         on.leave_markers({"shutdown-started"});
     }},
};

class ActionTrace : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "starts the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        machine.emplace();
        std::istringstream words{NOTED};
        for (std::string function; words >> function >> noted[function];) {
        }
    }

    // Runs the action and returns its section of the list.
    std::string trace(const scenario& scenario)
    {
        const std::string action = scenario.title.substr(0, scenario.title.find(','));
        machine->furnish(action);
        scenario.change(*machine);
        lines.clear();
        rights.clear();
        shown_messages = machine->session.messages().size();
        shown_calls = 0;
        machine->sweep.observe([this](auto function, const auto& arguments) { note(function, arguments); });
        testing::internal::CaptureStdout();
        const UINT code = machine->library.call(action.c_str(), machine->session.handle());
        testing::internal::GetCapturedStdout();
        machine->sweep.observe({});
        show_news();
        std::wstring text =
            L"== " + custom_actions::widen(scenario.title) + L": " + std::to_wstring(code) + L'\n';
        text += counted(folded(lines));
        if (scenario.change == change_nothing && !rights.empty()) {
            text += L"with";
            for (const auto& [right, times] : rights) {
                text += L' ' + right + (times == 1 ? L"" : L" x" + std::to_wstring(times));
            }
            text += L'\n';
        }
        return as_ascii(text);
    }

    void note(std::string_view function, const words& arguments)
    {
        const std::wstring name = custom_actions::widen(function);
        const std::string kinds = noted[std::string{function}];
        std::wstring line = name;
        show_news();
        for (std::size_t i = 0; i != kinds.size(); ++i) {
            if (kinds[i] == 'r') {
                ++rights[name + L'=' + shown('x', arguments.at(i))];
            } else if (kinds[i] != '-' && kinds[i] != '.') {
                line += L' ' + shown(kinds[i], arguments.at(i));
            }
        }
        if (thread_is_impersonating()) {
            ++rights[L"user:" + name];
        }
        const bool opens = function == "CreateFileW" && static_cast<DWORD>(arguments[4]) == OPEN_EXISTING;
        if (!opens && kinds.find_first_not_of("-r") != std::string::npos) {
            show(line);
        }
    }

    // Shows the messages posted and the scheduler's calls made since.
    void show_news()
    {
        const auto& messages = machine->session.messages();
        for (; shown_messages != messages.size(); ++shown_messages) {
            const auto& [type, line] = messages[shown_messages];
            show((type == INSTALLMESSAGE_INFO ? L"logs " : L"posts " + shown('x', type) + L' ') + line);
        }
        const std::wstring calls = machine->scheduler.calls();
        std::wistringstream news{calls.substr(shown_calls)};
        shown_calls = calls.size();
        for (std::wstring call; news >> call;) {
            static const std::wregex change{L"::(RegisterTaskDefinition|Run|DeleteTask)$"};
            if (std::regex_search(call, change)) {
                show(call);
            }
        }
    }

    // Adds a line, with names for what differs from run to run.
    void show(std::wstring line)
    {
        const auto replace_all = [&line](const std::wstring& value, const std::wstring& name) {
            for (std::size_t at = 0; (at = line.find(value, at)) != std::wstring::npos; at += name.size()) {
                line.replace(at, value.size(), name);
            }
        };
        replace_all(machine->upgrade.workspace, L"<workspace>");
        replace_all(machine->folder.wstring(), L"<suite>");
        replace_all(machine->upgrade.user_sid, L"<user>");
        replace_all(LR"(C:\windows\system32\WindowsPowerShell\v1.0\powershell.exe)", L"<powershell>");
        for (std::size_t index = 0; index != UPGRADE_PACKAGES.size(); ++index) {
            replace_all(UPGRADE_PACKAGES.at(index), L"package-" + std::to_wstring(index));
        }
        const std::pair<DWORD, const wchar_t*> processes[]{
            {machine->main.id(), L"$1<main>"},
            {machine->helper.id(), L"$1<helper>"},
            {machine->explorer.id(), L"$1<explorer>"},
            {GetCurrentProcessId(), L"$1<this>"},
            {stage::GONE, L"$1<gone>"}};
        for (const auto& [id, name] : processes) {
            const std::wregex whole{L"(PID |closing.* |PIDs:.* )" + std::to_wstring(id) + L"\\b"};
            line = std::regex_replace(line, whole, name);
        }
        static const std::wregex guid{L"\\{[-0-9A-F]{36}\\}"};
        lines += std::regex_replace(line, guid, L"{GUID}") + L'\n';
    }

    static std::wstring folded(std::wstring text)
    {
        for (const auto& [fold, name] : FOLDED) {
            text = std::regex_replace(text, fold, name);
        }
        return text;
    }

    // Counts a line that is repeated, and one that is there for package 0 and again for others.
    static std::wstring counted(const std::wstring& text)
    {
        std::vector<std::pair<std::wstring, unsigned>> counts;
        std::wistringstream stream{text};
        for (std::wstring line; std::getline(stream, line);) {
            static const std::wregex later_package{L"-[1-7]"};
            const std::wstring first = std::regex_replace(line, later_package, L"-0");
            const auto found = std::ranges::find(counts, first, &decltype(counts)::value_type::first);
            if (found != counts.end() && (first != line || found + 1 == counts.end())) {
                ++found->second;
            } else {
                counts.emplace_back(line, 1U);
            }
        }
        std::wstring all;
        for (const auto& [line, times] : counts) {
            all += line + (times == 1 ? L"" : L" x" + std::to_wstring(times)) + L'\n';
        }
        return all;
    }

    std::optional<furnished_machine> machine;
    std::map<std::string, std::string> noted;
    std::wstring lines;
    std::map<std::wstring, unsigned> rights; // and, with "user:", the calls under another identity
    std::size_t shown_messages = 0;
    std::size_t shown_calls = 0;
};

TEST_F(ActionTrace, is_as_listed)
{
    std::map<std::string, std::string> listed; // by title
    std::ifstream list{SOURCE_DIR "/tests/library/action_traces.txt"};
    std::string title;
    for (std::string line; std::getline(list, line); listed[title] += line + '\n') {
        title = line.starts_with("== ") ? line.substr(3, line.rfind(": ") - 3) : title;
    }
    std::vector<scenario> all{std::begin(OTHERS), std::end(OTHERS)};
    for (const std::string& action : pe_image{machine->library.module()}.exported_names()) {
        all.push_back({action, change_nothing});
    }
    EXPECT_EQ(listed.size(), all.size());
    std::ofstream actual{std::filesystem::path{beside_this_program(L"action_traces.txt")}, std::ios::binary};
    for (const scenario& scenario : all) {
        const std::string found = trace(scenario);
        EXPECT_EQ(found, listed[scenario.title]) << "build/mingw/action_traces.txt has all as they are now";
        actual << found;
    }
}

} // namespace
} // namespace test_support
