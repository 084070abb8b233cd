// Runs one action of the library by hand, for package authors and support.

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "support/child_process.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "support/real_session.h"
#include "tools/run_action/command_line.h"

#include <windows.h>
#include <msiquery.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace run_action {
namespace {

using custom_actions::widen;

constexpr int NOT_RUN = 1;
constexpr int WRONG_COMMAND_LINE = 2;

constexpr std::string_view CHANGE_NOTHING[] = {
    "check_upgrade_type",
    "notify_restart_recommended",
    "log_app_control_state",
    "prepare_controlled_upgrade",
    "capture_search_state",
};

constexpr const wchar_t* READ_BY_ACTIONS[] = {
    L"CustomActionData",
    L"ProductVersion",
    L"INSTALLED_APP_VERSION",
    L"WIX_UPGRADE_DETECTED",
    L"RollbackDisabled",
    L"INSTALLFOLDER",
    L"begin_controlled_upgrade",
    L"QblEarlyRecoveryTask",
};

constexpr const wchar_t* SET_BY_ACTIONS[] = {
    L"IS_MINOR_UPGRADE",
    L"restore_explorer",
    L"rollback_explorer",
    L"stop_search",
    L"rollback_search",
    L"restore_search",
    L"INSTALLFOLDER",
    L"begin_controlled_upgrade",
    L"install_upgrade_packages",
    L"finish_controlled_upgrade",
    L"rollback_controlled_upgrade",
    L"QblEarlyRecoveryTask",
};

struct named_code {
    UINT code;
    const wchar_t* name;
};

constexpr named_code MESSAGE_TYPES[] = {
    {INSTALLMESSAGE_ERROR, L"error"},
    {INSTALLMESSAGE_WARNING, L"warning"},
    {INSTALLMESSAGE_USER, L"notice"},
    {INSTALLMESSAGE_INFO, L"information"},
};

constexpr named_code RETURN_CODES[] = {
    {ERROR_SUCCESS, L"success"},
    {ERROR_INVALID_PARAMETER, L"its CustomActionData cannot be read"},
    {ERROR_INSTALL_FAILURE, L"failure"},
};

std::wstring name_of(UINT code, std::span<const named_code> names)
{
    const auto found = std::ranges::find(names, code, &named_code::code);
    return found == names.end() ? L"unknown" : found->name;
}

void print(std::FILE* stream, const std::wstring& text)
{
    const auto length = static_cast<int>(text.size());
    const UINT code_page = GetConsoleOutputCP(); // without a console 0, the system's code page
    std::string bytes(text.size() * 4, '\0');
    bytes.resize(static_cast<std::size_t>(WideCharToMultiByte(
        code_page, 0, text.data(), length, bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr)));
    std::fputs(bytes.c_str(), stream);
    std::fflush(stream); // an action may print too
}

void print_line(const std::wstring& text)
{
    print(stdout, text + L"\n");
}

int reject_command_line(const std::wstring& mistake, const std::wstring& help)
{
    print(stderr, L"run_action: " + mistake + L"\n\n" + help + L"\n");
    return WRONG_COMMAND_LINE;
}

void print_message(const test_support::posted_message& message)
{
    wchar_t number[16];
    std::swprintf(number, std::size(number), L"0x%08X ", message.type);
    print_line(number + name_of(message.type & 0xFF000000U, MESSAGE_TYPES) + L": " + message.text);
}

bool changes_nothing(const std::string& action)
{
    return std::ranges::find(CHANGE_NOTHING, action) != std::end(CHANGE_NOTHING);
}

std::wstring list_of(const std::vector<std::string>& actions)
{
    std::wstring list;
    for (const std::string& action : actions) {
        std::wstring line = widen(action);
        line.resize(40, L' ');
        list += line + (changes_nothing(action) ? L"changes nothing\n" : L"changes the machine\n");
    }
    list.resize(list.empty() ? 0 : list.size() - 1);
    return list;
}

bool user_agrees(const std::string& action)
{
    print(stdout, widen(action) + L" changes this machine. Run it? [y/N] ");
    char answer[8]{};
    const bool agrees =
        std::fgets(answer, sizeof answer, stdin) != nullptr && (answer[0] == 'y' || answer[0] == 'Y');
    if (!agrees) {
        print_line(L"Not run.");
    }
    return agrees;
}

// Property names are case-sensitive.
bool used_by_actions(const std::wstring& property)
{
    return std::ranges::find(READ_BY_ACTIONS, property) != std::end(READ_BY_ACTIONS) ||
           std::ranges::find(SET_BY_ACTIONS, property) != std::end(SET_BY_ACTIONS);
}

std::wstring list_of_properties()
{
    std::wstring list = L"properties that actions read:";
    for (const wchar_t* name : READ_BY_ACTIONS) {
        list.append(L" ").append(name);
    }
    return list;
}

void set_properties(MSIHANDLE session, const options& chosen)
{
    for (const auto& [name, value] : chosen.properties) {
        if (const UINT result = MsiSetPropertyW(session, name.c_str(), value.c_str());
            result != ERROR_SUCCESS) {
            throw custom_actions::windows_error{"Cannot set the properties", result};
        }
    }
}

// The values of the properties that an action may change, and of those on the command line.
std::map<std::wstring, std::wstring> read_properties(MSIHANDLE session, const options& chosen)
{
    std::map<std::wstring, std::wstring> values;
    for (const wchar_t* name : SET_BY_ACTIONS) {
        values[name] = custom_actions::read_property(session, name);
    }
    for (const auto& [name, value] : chosen.properties) {
        values[name] = custom_actions::read_property(session, name.c_str());
    }
    return values;
}

void print_changes(
    const std::map<std::wstring, std::wstring>& before, const std::map<std::wstring, std::wstring>& after)
{
    if (before == after) {
        print_line(L"no property changed");
    }
    for (const auto& [name, value] : after) {
        if (value != before.at(name)) {
            std::wstring line = (value.empty() ? L"cleared " : L"set ") + name;
            if (!value.empty()) {
                line.append(L"=").append(value);
            }
            print_line(line);
        }
    }
}

UINT call_in_session(
    const test_support::loaded_library& library, const std::string& action, const options& chosen)
{
    const test_support::real_session session{print_message};
    set_properties(session.handle(), chosen);
    const auto before = read_properties(session.handle(), chosen);
    const UINT code = library.call(action.c_str(), session.handle());
    print_changes(before, read_properties(session.handle(), chosen));
    return code;
}

std::wstring full_path(const std::wstring& path)
{
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

int run(const options& chosen)
{
    if (!chosen.mistake.empty()) {
        return reject_command_line(chosen.mistake, USAGE);
    }
    if (chosen.help_only) {
        print_line(USAGE);
        return 0;
    }
    const auto unused = std::ranges::find_if_not(
        chosen.properties, used_by_actions, &std::pair<std::wstring, std::wstring>::first);
    if (unused != chosen.properties.end()) {
        return reject_command_line(L"no action reads or sets " + unused->first, list_of_properties());
    }
    const test_support::loaded_library library{
        chosen.library.empty() ? test_support::built_library() : full_path(chosen.library)};
    const std::vector<std::string> actions = test_support::pe_image{library.module()}.exported_names();
    if (chosen.list_only) {
        print_line(list_of(actions));
        return 0;
    }
    const auto action = std::ranges::find(actions, chosen.action, widen);
    if (action == actions.end()) {
        return reject_command_line(L"no such action: " + chosen.action, list_of(actions));
    }
    if (!changes_nothing(*action) && !chosen.without_asking && !user_agrees(*action)) {
        return NOT_RUN;
    }
    const UINT code =
        chosen.with_session ? call_in_session(library, *action, chosen) : library.call(action->c_str(), 0);
    print_line(L"returned " + std::to_wstring(code) + L": " + name_of(code, RETURN_CODES));
    return static_cast<int>(code);
}

} // namespace
} // namespace run_action

int main()
{
    try {
        return run_action::run(run_action::parse_command_line(run_action::arguments_of_this_process()));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "run_action: %s\n", error.what());
        return run_action::NOT_RUN;
    }
}
