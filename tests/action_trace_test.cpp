// What each action does to the machine and logs, in order, with the rights that it asks for and what it does
// under another identity. action_traces.txt has it for a furnished machine on which nothing fails, and for
// others: a title there is an action and what is different.

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/text.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "support/ascii.h"
#include "support/child_process.h"
#include "support/pe_image.h"
#include "tests/support/faults.h"
#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>
#include <objbase.h>
#include <wincrypt.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace test_support {
namespace {

using custom_actions::widen;
using custom_actions::controlled_upgrade::UPGRADE_PACKAGES;

// The calls that are noted, each with its arguments in order: what is counted (r, a), what is shown (the
// other letters of SHOWN), or nothing (- and .).
constexpr const char* NOTED =
    "AdjustTokenPrivileges --a  ChangeServiceConfig2W -dn  ChangeServiceConfigW --d "
    "CoInitializeEx -d  CoUninitialize .  ControlService -d "
    "ConvertStringSecurityDescriptorToSecurityDescriptorW t  CopyFileW ttd  CreateDirectoryW t "
    "CreateEnvironmentBlock --d  CreateFileW tr--dx  CreateProcessAsUserW -ts--dx?tl "
    "CreateProcessW -t--dx?  CreateToolhelp32Snapshot r  MsiSetPropertyW -tt  MsiSetTargetPathW -tt "
    "OpenProcess r  OpenProcessToken -r  OpenSCManagerW --r  OpenServiceW --r  OpenThreadToken -r "
    "PostMessageW wx  PostThreadMessageW dx  RegCreateKeyExA -----r  RegCreateKeyExW -----r "
    "RegDeleteKeyExW -t  RegOpenKeyExA ---r  RegOpenKeyExW ---r  RegSetValueExW -t-d "
    "SetHandleInformation -xx  SHChangeNotify xx  Sleep d  StartServiceW .  TerminateProcess pd "
    "WaitForSingleObject pd ";

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
    auto* const bytes = reinterpret_cast<BYTE*>(script.data());
    const wchar_t* const text = command_line.c_str() + encoded + 16;
    CryptStringToBinaryW(text, 0, CRYPT_STRING_BASE64, bytes, &size, nullptr, nullptr);
    std::wstring names;
    const std::wregex cmdlet{L"\\b[A-Z][a-z]+-[A-Z][a-zA-Z]+|'[^']*[.]msix'"};
    for (std::wsregex_iterator found{script.begin(), script.end(), cmdlet}, end; found != end; ++found) {
        names += names.find(found->str()) == std::wstring::npos ? L' ' + found->str() : L"";
    }
    return names.substr(1);
}

std::wstring hexadecimal(word number)
{
    std::wostringstream text;
    text << std::hex << static_cast<DWORD>(number);
    return text.str();
}

std::wstring owner(word window)
{
    DWORD id = 0;
    GetWindowThreadProcessId(from_word<HWND>(window), &id);
    return L"PID " + std::to_wstring(id);
}

const std::map<char, std::function<std::wstring(word)>> SHOWN{
    {'?', [](word pointer) { return pointer == 0 ? L"none" : L"own"; }}, // whether it is given
    {'a', [](word set) { return hexadecimal(from_word<TOKEN_PRIVILEGES*>(set)->Privileges[0].Attributes); }},
    {'d', [](word number) { return std::to_wstring(static_cast<DWORD>(number)); }},
    {'l', [](word startup) { return from_word<const STARTUPINFOW*>(startup)->lpDesktop; }},
    {'n', [](word number) { return std::to_wstring(*from_word<const DWORD*>(number)); }},
    {'r', hexadecimal},
    {'p', [](word process) { return L"PID " + std::to_wstring(GetProcessId(from_word<HANDLE>(process))); }},
    {'s', [](word command_line) { return cmdlets(from_word<const wchar_t*>(command_line)); }},
    {'t', [](word text) { return text == 0 ? L"(none)" : from_word<const wchar_t*>(text); }},
    {'w', owner},
    {'x', hexadecimal}};

std::wstring replaced(std::wstring text, const std::wstring& found, const std::wstring& put)
{
    for (std::size_t at = 0; (at = text.find(found, at)) != std::wstring::npos; at += put.size()) {
        text.replace(at, found.size(), put);
    }
    return text;
}

// What is listed: heads ("-- " and the name of lines that are repeated, which are a regular expression; or
// "== ", a title and the action's result, then what it does if that is one line), each with the lines below.
std::vector<std::pair<std::string, std::string>> read_list()
{
    std::vector<std::pair<std::string, std::string>> parts;
    std::ifstream list{SOURCE_DIR "/tests/action_traces.txt"};
    for (std::string line; std::getline(list, line);) {
        if (line.starts_with("-- ") || line.starts_with("== ")) {
            parts.emplace_back(line + '\n', "");
        } else {
            parts.back().second += line + '\n';
        }
    }
    return parts;
}

class ActionTrace : public furnished_test {
protected:
    void SetUp() override
    {
        furnished_test::SetUp();
        std::istringstream words{NOTED};
        for (std::string function; words >> function >> noted[function];) {
        }
    }

    // Changes something as a title says: the machine, or a property of the installer.
    void change(const std::wstring& name, const std::wstring& text)
    {
        fake_machine& fake = stage->machine;
        const auto& ids = stage->ids;
        std::wistringstream stream{text};
        const std::vector<std::wstring> values{std::istream_iterator<std::wstring, wchar_t>{stream}, {}};
        const auto number = [&] { return static_cast<DWORD>(std::stoul(text)); };
        const auto all = [&](auto& list, auto value_of) {
            list.clear();
            std::ranges::transform(values, std::back_inserter(list), value_of);
        };
        const std::wstring policy = LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)";
        const wchar_t* const state = L"VerifiedAndReputablePolicyState";
        const std::map<std::wstring, std::function<void()>> changes{
            {L"COM", [&] { apartment = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }},
            {L"Search", [&] { all(fake.search_states, [](const auto& one) { return std::stoul(one); }); }},
            {L"hidden", [&] { fake.programs[ids.at(text)].hidden = true; }},
            {L"key path", [&] { fake.key_paths.begin()->second = text; }},
            {L"maintenance key", [] { custom_actions::controlled_upgrade::upgrade_guard(true); }},
            {L"markers", [&] { stage->leave_markers(text); }},
            {L"policy", [&] { plant_number(HKEY_LOCAL_MACHINE, policy, state, number()); }},
            {L"policy's text", [&] { plant_value(HKEY_LOCAL_MACHINE, policy, state, registry_text(text)); }},
            {L"program", [&] { fake.programs[ids.at(values.at(0))] = {values.at(1), values.at(2), {}}; }},
            {L"restarted", [&] { fake.restarts = true; }},
            {L"running", [&] { all(fake.running, [&](const auto& value) { return ids.at(value); }); }},
            {L"scheduler's failure", [&] { stage->scheduler.fail(text); }},
            {L"script's result", [&] { fake.script_result = number(); }},
            {L"session", [&] { fake.programs[ids.at(values.at(0))].session = std::stoul(values.at(1)); }},
            {L"task's result", [&] { stage->scheduler.end_with(static_cast<HRESULT>(number())); }},
            {L"task's state", [&] { stage->scheduler.stay_in(number()); }}};
        if (const auto known = changes.find(name); known != changes.end()) {
            known->second();
        } else {
            EXPECT_TRUE(
                !custom_actions::read_property(stage->session.handle(), name.c_str()).empty() ||
                name == L"RollbackDisabled")
                << "unknown: " << as_ascii(name);
            stage->set_property(name, replaced(text, L"<user>", stage->upgrade.user_sid));
        }
    }

    // Runs the action of a title, "ACTION[; CHANGE=TEXT]...", and returns its part of the list.
    std::string trace(const std::string& title)
    {
        const std::string action = title.substr(0, title.find(';'));
        stage->furnish(action);
        const std::wstring wide = widen(title);
        static const std::wregex one_change{L"; ([^=]+)=(.*?)(?=; |$)"};
        for (std::wsregex_iterator found{wide.begin(), wide.end(), one_change}, end; found != end; ++found) {
            change((*found)[1], (*found)[2]);
        }
        lines.clear();
        rights.clear();
        shown_messages = stage->session.messages().size();
        shown_calls = stage->scheduler.calls().size();
        stage->sweep.observe([this](auto function, const auto& arguments) { note(function, arguments); });
        testing::internal::CaptureStdout();
        const UINT code = stage->library.call(action.c_str(), stage->session.handle());
        testing::internal::GetCapturedStdout();
        stage->sweep.observe({});
        show_news();
        if (SUCCEEDED(std::exchange(apartment, E_FAIL))) {
            CoUninitialize();
        }
        for (const auto& [repeated, name] : folds) {
            lines = std::regex_replace(lines, repeated, name);
        }
        lines = counted(lines);
        if (title == action && !rights.empty()) {
            lines += L"with";
            for (const auto& [right, times] : rights) {
                lines += L' ' + right + (times == 1 ? L"" : L" x" + std::to_wstring(times));
            }
            lines += L'\n';
        }
        const bool one_line = std::ranges::count(lines, L'\n') == 1;
        return "== " + title + ": " + std::to_string(code) + (one_line ? ' ' : '\n') + as_ascii(lines);
    }

    void note(std::string_view function, const words& arguments)
    {
        const std::wstring name = widen(function);
        const std::string kinds = noted[std::string{function}];
        std::wstring line = name;
        show_news();
        for (std::size_t i = 0; i != kinds.size(); ++i) {
            const auto shown = SHOWN.find(kinds[i]);
            const std::wstring text = shown == SHOWN.end() ? L"" : shown->second(arguments.at(i));
            if (kinds[i] == 'r' || kinds[i] == 'a') {
                ++rights[name + L'=' + text];
            } else if (shown != SHOWN.end()) {
                line += L' ' + text;
            }
        }
        EXPECT_TRUE(function != "CoUninitialize" || stage->scheduler.objects() == 0) << "objects outlive COM";
        if (thread_is_impersonating()) {
            ++rights[L"user:" + name];
        }
        const bool opens = function == "CreateFileW" && static_cast<DWORD>(arguments[4]) == OPEN_EXISTING;
        if (!opens && kinds.find_first_not_of("-ra") != std::string::npos) {
            show(line);
        }
    }

    // Shows the messages posted and the scheduler's calls made since, with the task that is registered.
    void show_news()
    {
        const auto& messages = stage->session.messages();
        for (; shown_messages != messages.size(); ++shown_messages) {
            const auto& [type, line] = messages[shown_messages];
            show((type == INSTALLMESSAGE_INFO ? L"logs " : L"posts " + hexadecimal(type) + L' ') + line);
        }
        const std::wstring calls = stage->scheduler.calls();
        std::wistringstream news{calls.substr(shown_calls)};
        shown_calls = calls.size();
        for (std::wstring call; news >> call;) {
            if (call.ends_with(L"::RegisterTaskDefinition")) {
                for (const std::wstring& task : toy_scheduler::task_names()) {
                    for (const auto& [name, value] :
                         toy_scheduler::load_task(task).value_or(toy_scheduler::properties{})) {
                        call.append(L" ").append(name).append(L"=").append(cmdlets(value));
                    }
                }
                show(call);
            } else if (call.ends_with(L"::Run") || call.ends_with(L"::DeleteTask")) {
                show(call);
            }
        }
    }

    // Adds a line, with names for what differs from run to run.
    void show(std::wstring line)
    {
        line = replaced(line, stage->upgrade.workspace, L"<workspace>");
        line = replaced(line, stage->folder.wstring(), L"<suite>");
        line = replaced(line, stage->upgrade.user_sid, L"<user>");
        line =
            replaced(line, LR"(C:\windows\system32\WindowsPowerShell\v1.0\powershell.exe)", L"<powershell>");
        for (std::size_t index = 0; index != UPGRADE_PACKAGES.size(); ++index) {
            line = replaced(line, UPGRADE_PACKAGES.at(index), L"package-" + std::to_wstring(index));
        }
        for (const auto& [name, id] : stage->ids) {
            const std::wregex whole{L"(PID |closing.* |PIDs:.* )" + std::to_wstring(id) + L"\\b"};
            line = std::regex_replace(line, whole, L"$1<" + name + L'>');
        }
        static const std::wregex guid{L"\\{[-0-9A-F]{36}\\}"};
        lines += std::regex_replace(line, guid, L"{GUID}") + L'\n';
    }

    // Counts a line that is repeated, and one that is there for a package and again for others.
    static std::wstring counted(const std::wstring& text)
    {
        std::vector<std::pair<std::wstring, unsigned>> counts;
        std::vector<std::wstring> seen; // with another package's number
        std::wistringstream stream{text};
        for (std::wstring line; std::getline(stream, line);) {
            static const std::wregex package{L"-[0-7]"};
            const std::wstring any = std::regex_replace(line, package, L"-N");
            const auto found = std::ranges::find(seen, any);
            if (found != seen.end() && (any != line || found + 1 == seen.end())) {
                ++counts.at(static_cast<std::size_t>(found - seen.begin())).second;
            } else {
                counts.emplace_back(line, 1U);
                seen.push_back(any);
            }
        }
        std::wstring all;
        for (const auto& [line, times] : counts) {
            all += line + (times == 1 ? L"" : L" x" + std::to_wstring(times)) + L'\n';
        }
        return all;
    }

    std::map<std::string, std::string> noted;
    std::vector<std::pair<std::wregex, std::wstring>> folds; // the lines that are repeated, and their names
    std::wstring lines;
    std::map<std::wstring, unsigned> rights; // and, with "user:", the calls under another identity
    std::size_t shown_messages = 0;
    std::size_t shown_calls = 0;
    HRESULT apartment = E_FAIL; // this thread's
};

TEST_F(ActionTrace, is_as_listed)
{
    std::vector<std::string> actions = pe_image{stage->library.module()}.exported_names();
    std::ofstream actual{std::filesystem::path{beside_this_program(L"action_traces.txt")}, std::ios::binary};
    static const std::regex title{"== (.*?): \\d+( .*)?\n"};
    for (const auto& [head, below] : read_list()) {
        std::string found = head + below;
        if (head.starts_with("-- ")) {
            folds.emplace_back(widen(below), widen(head.substr(3)));
        } else if (std::smatch part; std::regex_match(head, part, title)) {
            found = trace(part[1]);
            std::erase(actions, part[1]);
        }
        EXPECT_EQ(head + below, found) << "build/mingw/action_traces.txt has all as they are now";
        actual << found;
    }
    EXPECT_EQ(testing::PrintToString(actions), "{}") << "not listed";
}

} // namespace
} // namespace test_support
