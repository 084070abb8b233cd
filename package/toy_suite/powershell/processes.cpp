#include "package/toy_suite/powershell/processes.h"

#include "package/toy_suite/powershell/text.h"
#include "package/toy_suite/powershell/wildcards.h"

#include <tlhelp32.h>

#include <stdexcept>

namespace toy_powershell {

namespace {

bool try_to_start(const std::wstring& program, std::wstring command_line, const std::wstring& folder)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (CreateProcessW(
            program.c_str(),
            command_line.data(),
            nullptr,
            nullptr,
            FALSE,
            CREATE_NEW_CONSOLE, // so that it does not hold this process's output open
            nullptr,
            folder.empty() ? nullptr : folder.c_str(),
            &startup,
            &started) == FALSE) {
        return false;
    }
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
    return true;
}

} // namespace

void start_process(
    const std::wstring& program_pattern, const std::wstring& arguments, const std::wstring& folder_pattern)
{
    const std::wstring program = path_named_by(program_pattern);
    const std::wstring folder = path_named_by(folder_pattern);
    const std::wstring command_line = L'"' + program + L'"' + (arguments.empty() ? L"" : L' ' + arguments);
    // CreateProcess fails on Wine about once in some thousand calls.
    constexpr int retries = 2;
    for (int tries = 0; !try_to_start(program, command_line, folder); ++tries) {
        if (tries == retries) {
            throw std::runtime_error{
                "Start-Process : This command cannot be run: " + narrow(program) + ", error " +
                std::to_string(GetLastError())};
        }
    }
}

DWORD session_of(DWORD process)
{
    DWORD session = 0;
    return ProcessIdToSessionId(process, &session) != FALSE ? session : ~DWORD{0};
}

std::wstring path_of(DWORD process)
{
    std::wstring path(32768, L'\0');
    auto size = static_cast<DWORD>(path.size());
    HANDLE opened = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process);
    const bool found =
        opened != nullptr && QueryFullProcessImageNameW(opened, 0, path.data(), &size) != FALSE;
    if (opened != nullptr) {
        CloseHandle(opened);
    }
    path.resize(found ? size : 0);
    return path;
}

bool process_runs(const std::wstring& name, const std::function<bool(DWORD)>& condition)
{
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    bool runs = false;
    for (BOOL more = Process32FirstW(snapshot, &entry); more != FALSE && !runs;
         more = Process32NextW(snapshot, &entry)) {
        runs = equal_ignoring_case(entry.szExeFile, name + L".exe") && condition(entry.th32ProcessID);
    }
    CloseHandle(snapshot);
    return runs;
}

} // namespace toy_powershell
