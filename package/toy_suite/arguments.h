#pragma once

#include <windows.h>
#include <shellapi.h>

#include <string>
#include <vector>

namespace toy_suite {

// What stands behind the program's name on the command line of this process.
inline std::vector<std::wstring> read_arguments()
{
    int count = 0;
    LPWSTR* arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::wstring> read{arguments + 1, arguments + count};
    LocalFree(static_cast<void*>(arguments));
    return read;
}

} // namespace toy_suite
