#include "tools/run_action/command_line.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <windows.h>
#include <shellapi.h>

namespace run_action {
namespace {

// What is wrong with the combination of options; empty if nothing.
std::wstring mistake_of(const options& chosen)
{
    if (chosen.list_only) {
        const bool alone = chosen.action.empty() && chosen.properties.empty();
        return alone ? L"" : L"--list takes no action and no properties";
    }
    if (chosen.action.empty()) {
        return L"no action given";
    }
    return chosen.with_session || chosen.properties.empty() ? L"" : L"--no-session takes no properties";
}

} // namespace

std::vector<std::wstring> arguments_of_this_process()
{
    int count = 0;
    LPWSTR* arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    const custom_actions::local_memory memory{static_cast<void*>(arguments)};
    if (!memory) {
        custom_actions::throw_last_error("Cannot read the command line");
    }
    return {arguments + 1, arguments + count};
}

options parse_command_line(const std::vector<std::wstring>& arguments)
{
    options chosen;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        const std::size_t equals = argument->find(L'=');
        if (*argument == L"--help") {
            chosen.help_only = true;
            return chosen;
        }
        if (*argument == L"--library" && argument + 1 != arguments.end()) {
            chosen.library = *++argument;
        } else if (*argument == L"--yes") {
            chosen.without_asking = true;
        } else if (*argument == L"--no-session") {
            chosen.with_session = false;
        } else if (*argument == L"--list") {
            chosen.list_only = true;
        } else if (equals != std::wstring::npos && equals != 0 && !argument->starts_with(L"--")) {
            chosen.properties.emplace_back(argument->substr(0, equals), argument->substr(equals + 1));
        } else if (equals == std::wstring::npos && !argument->starts_with(L"--") && chosen.action.empty()) {
            chosen.action = *argument;
        } else {
            chosen.mistake = L"not understood: " + *argument;
            return chosen;
        }
    }
    chosen.mistake = mistake_of(chosen);
    return chosen;
}

} // namespace run_action
