#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>
#include <shellapi.h>

#include <string>
#include <vector>

namespace toy_suite {

// This process's command-line arguments, without the program's name.
inline std::vector<std::wstring> read_arguments()
{
    int count = 0;
    LPWSTR* const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    const custom_actions::local_memory owner{static_cast<void*>(arguments)};
    return {arguments + 1, arguments + count};
}

// Starts a program with these arguments and creation flags; an empty folder means the current one. Tries
// three times, since CreateProcess fails on Wine about once in some thousand calls. If the program does not
// start, the handle is empty and the last error set.
inline custom_actions::kernel_handle start_program(
    const std::wstring& program, const std::wstring& arguments, DWORD flags, const std::wstring& folder = L"")
{
    std::wstring line = L'"' + program + L"\" " + arguments;
    const wchar_t* const directory = folder.empty() ? nullptr : folder.c_str();
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    BOOL done = FALSE;
    for (int tries = 0; tries != 3 && done == FALSE; ++tries) {
        done = CreateProcessW(
            program.c_str(),
            line.data(),
            nullptr,
            nullptr,
            FALSE,
            flags,
            nullptr,
            directory,
            &startup,
            &started);
    }
    if (done != FALSE) {
        CloseHandle(started.hThread);
    }
    return custom_actions::kernel_handle{started.hProcess};
}

} // namespace toy_suite
