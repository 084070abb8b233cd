#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace toy_powershell {

// Start-Process. Program and folder are patterns (wildcards.h); an empty folder means the current one. Throws
// std::runtime_error if the program does not start.
void start_process(
    const std::wstring& program, const std::wstring& arguments = L"", const std::wstring& folder = L"");

// The session of a process; -1, which is no session, if unknown.
DWORD session_of(DWORD process);

// The path of a process's program; empty if unknown.
std::wstring path_of(DWORD process);

// True if a process of this name (without ".exe") satisfies `condition`, which gets its id.
bool process_runs(const std::wstring& name, const std::function<bool(DWORD)>& condition);

} // namespace toy_powershell
