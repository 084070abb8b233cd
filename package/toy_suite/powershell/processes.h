#pragma once

#include <windows.h>

#include <string>

namespace toy_powershell {

// Start-Process. Program and folder are patterns (files.h); an empty folder means the current one. Throws
// std::runtime_error if the program does not start.
void start_process(
    const std::wstring& program, const std::wstring& arguments = L"", const std::wstring& folder = L"");

// The session of a process; -1, which is no session, if unknown.
DWORD session_of(DWORD process);

// True if a process of this name (without ".exe") runs in this session, with its program at this path. An
// empty path means any.
bool process_runs(const std::wstring& name, DWORD session, const std::wstring& path = L"");

} // namespace toy_powershell
