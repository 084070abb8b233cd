#include "package/toy_suite/powershell/processes.h"

#include "package/toy_suite/powershell/files.h"
#include "package/toy_suite/powershell/text.h"
#include "package/toy_suite/process.h"

#include <tlhelp32.h>

#include <stdexcept>

namespace toy_powershell {
namespace {

using custom_actions::kernel_handle;

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
    // A console of its own, so that it does not hold this process's output open.
    if (!toy_suite::start_program(program, arguments, CREATE_NEW_CONSOLE, folder)) {
        const std::string error = std::to_string(GetLastError());
        throw std::runtime_error{
            "Start-Process : This command cannot be run: " + narrow(program) + ", error " + error};
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
