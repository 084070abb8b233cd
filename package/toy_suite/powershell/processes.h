#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace toy_powershell {

// Start-Process. Program and folder are patterns (wildcards.h). Throws std::runtime_error where the program
// does not start. An empty folder is this process's own.
void start_process(
    const std::wstring& program, const std::wstring& arguments = L"", const std::wstring& folder = L"");

// The session of a process; nobody's (-1) where it cannot be told.
DWORD session_of(DWORD process);

// The file of a process; empty where it cannot be told.
std::wstring path_of(DWORD process);

// Whether a process by this name (without ".exe") satisfies `condition`, which is given its id.
bool process_runs(const std::wstring& name, const std::function<bool(DWORD)>& condition);

} // namespace toy_powershell
