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

} // namespace toy_suite
