#include "package/toy_suite/powershell/processes.h"

#include "custom_actions/common/scoped_handle.h"
#include "package/toy_suite/powershell/files.h"
#include "package/toy_suite/powershell/text.h"

#include <tlhelp32.h>

#include <stdexcept>

namespace toy_powershell {
namespace {

using custom_actions::kernel_handle;

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

// The path of a process's program; empty if unknown.
std::wstring path_of(DWORD process)
{
    std::wstring path(32768, L'\0');
    auto size = static_cast<DWORD>(path.size());
    const kernel_handle opened{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process)};
    path.resize(QueryFullProcessImageNameW(opened.get(), 0, path.data(), &size) != FALSE ? size : 0);
    return path;
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

bool process_runs(const std::wstring& name, DWORD session, const std::wstring& path)
{
    const kernel_handle snapshot{CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)};
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more != FALSE;
         more = Process32NextW(snapshot.get(), &entry)) {
        if (equal_ignoring_case(entry.szExeFile, name + L".exe") &&
            session_of(entry.th32ProcessID) == session &&
            (path.empty() || equal_ignoring_case(path_of(entry.th32ProcessID), path))) {
            return true;
        }
    }
    return false;
}

} // namespace toy_powershell
