#include "support/child_process.h"

#include <filesystem>
#include <system_error>
#include <utility>

namespace test_support {

using custom_actions::kernel_handle;

constexpr DWORD TERMINATION_LIMIT_MS = 5000;

std::wstring this_program()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

std::wstring beside_this_program(const std::wstring& name)
{
    return std::filesystem::path{this_program()}.replace_filename(name);
}

started_child start_child(std::wstring command_line, DWORD flags, HANDLE output)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = output == nullptr ? 0 : STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION started{};
    // Under Wine about one start in some thousands fails.
    for (int tries = 0; !CreateProcessW(
             nullptr,
             command_line.data(),
             nullptr,
             nullptr,
             output != nullptr,
             flags,
             nullptr,
             nullptr,
             &startup,
             &started);
         ++tries) {
        const DWORD code = GetLastError();
        if (code != ERROR_INTERNAL_ERROR || tries == 2) {
            throw std::system_error{static_cast<int>(code), std::system_category(), "starting a program"};
        }
    }
    const kernel_handle thread{started.hThread};
    return {.process = kernel_handle{started.hProcess}, .id = started.dwProcessId};
}

child_result run_child(std::wstring command_line, std::chrono::milliseconds limit)
{
    // A temporary file, deleted when closed. Unlike a pipe, it makes nobody wait for a process that the child
    // leaves running.
    std::wstring path(MAX_PATH, L'\0');
    GetTempFileNameW(std::filesystem::temp_directory_path().c_str(), L"out", 0, path.data());
    SECURITY_ATTRIBUTES inheritable{
        .nLength = sizeof inheritable, .lpSecurityDescriptor = nullptr, .bInheritHandle = TRUE};
    const kernel_handle output{CreateFileW(
        path.c_str(),
        GENERIC_READ | GENERIC_WRITE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        &inheritable,
        CREATE_ALWAYS,
        FILE_FLAG_DELETE_ON_CLOSE,
        nullptr)};
    if (!output) {
        throw std::system_error{static_cast<int>(GetLastError()), std::system_category(), "making a file"};
    }
    const kernel_handle process =
        start_child(std::move(command_line), CREATE_NO_WINDOW, output.get()).process;
    if (WaitForSingleObject(process.get(), static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), WAIT_TIMEOUT);
        WaitForSingleObject(process.get(), TERMINATION_LIMIT_MS);
    }
    child_result result{
        .exit_code = STILL_ACTIVE, .output = std::string(GetFileSize(output.get(), nullptr), '\0')};
    GetExitCodeProcess(process.get(), &result.exit_code);
    SetFilePointer(output.get(), 0, nullptr, FILE_BEGIN);
    DWORD read = 0;
    ReadFile(output.get(), result.output.data(), static_cast<DWORD>(result.output.size()), &read, nullptr);
    return result;
}

} // namespace test_support
