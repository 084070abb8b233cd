#pragma once

#include <string>
#include <utility>
#include <vector>

namespace run_action {

// What the command line asks for.
struct options {
    std::wstring mistake; // what is wrong with the command line; empty where nothing is
    std::wstring library; // empty: custom_actions.dll beside this program
    std::wstring action;
    std::vector<std::pair<std::wstring, std::wstring>> properties; // names and values
    bool with_session = true;
    bool without_asking = false;
    bool list_only = false;
};

inline constexpr const wchar_t* USAGE =
    L"usage: run_action [--library PATH] [--yes] ACTION [NAME=VALUE...]\n"
    L"       run_action [--library PATH] [--yes] --no-session ACTION\n"
    L"       run_action [--library PATH] --list\n"
    L"\n"
    L"Runs one action of custom_actions.dll in an installer session made for it, with the properties named.\n"
    L"Prints its messages as they come, the properties that it changed and its return code.\n"
    L"\n"
    L"  --library PATH  the library, where it is not beside this program\n"
    L"  --yes           does not ask before an action that changes the machine\n"
    L"  --no-session    calls the action without a session: with the handle 0\n"
    L"  --list          lists the actions, and which of them change the machine\n"
    L"\n"
    L"Ends with the action's return code; with 2 where the command line is wrong, and with 1 where the "
    L"action\n"
    L"was not run for another reason.";

// The arguments of this process, without the program itself.
std::vector<std::wstring> arguments_of_this_process();

// `arguments` are those after the program's own name.
options parse_command_line(const std::vector<std::wstring>& arguments);

} // namespace run_action
