#pragma once

#include <string>
#include <utility>
#include <vector>

namespace run_action {

struct options {
    std::wstring mistake; // what is wrong with the command line; empty if nothing
    std::wstring library; // if empty, custom_actions.dll beside this program
    std::wstring action;
    std::vector<std::pair<std::wstring, std::wstring>> properties; // names and values
    bool with_session = true;
    bool without_asking = false;
    bool list_only = false;
    bool help_only = false;
};

inline constexpr const wchar_t* USAGE =
    L"usage: run_action [--library PATH] [--yes] ACTION [NAME=VALUE...]\n"
    L"       run_action [--library PATH] [--yes] --no-session ACTION\n"
    L"       run_action [--library PATH] --list\n"
    L"       run_action --help\n"
    L"\n"
    L"Runs one action of custom_actions.dll in a temporary installer session, with the given properties "
    L"set.\n"
    L"Prints the action's messages, the properties it changed and its return code.\n"
    L"\n"
    L"  --library PATH  the library to load (default: custom_actions.dll beside this program)\n"
    L"  --yes           do not ask before an action that changes the machine\n"
    L"  --no-session    call the action with the handle 0 instead of a session\n"
    L"  --list          list the actions and whether they change the machine\n"
    L"\n"
    L"The exit code is the action's, 0 or an error such as 1603; 2 if the command line is wrong, 1 if the\n"
    L"action was not run. A shell on Linux gets the low 8 bits only: 67 for 1603.";

// The arguments of this process, without the program itself.
std::vector<std::wstring> arguments_of_this_process();

// Parses `arguments`, which do not include the program itself. Errors are left in `mistake`.
options parse_command_line(const std::vector<std::wstring>& arguments);

} // namespace run_action
