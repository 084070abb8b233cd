#include "tests/support/child_process.h"

#include "custom_actions/common/scoped_handle.h"

#include <array>
#include <system_error>
#include <thread>

namespace test_support {
namespace {

using custom_actions::kernel_handle;

void require(BOOL done, const char* what)
{
    if (done == FALSE) {
        throw std::system_error{static_cast<int>(GetLastError()), std::system_category(), what};
    }
}

std::string read_all(HANDLE pipe)
{
    std::string text;
    std::array<char, 4096> chunk{};
    DWORD read = 0;
    while (ReadFile(pipe, chunk.data(), static_cast<DWORD>(chunk.size()), &read, nullptr) != FALSE &&
           read != 0) {
        text.append(chunk.data(), read);
    }
    return text;
}

} // namespace

std::wstring this_program()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

child_result run_child(std::wstring command_line, std::chrono::milliseconds limit)
{
    SECURITY_ATTRIBUTES inheritable{
        .nLength = sizeof inheritable, .lpSecurityDescriptor = nullptr, .bInheritHandle = TRUE};
    kernel_handle read_end;
    kernel_handle write_end;
    require(CreatePipe(read_end.put(), write_end.put(), &inheritable, 0), "CreatePipe");
    require(SetHandleInformation(read_end.get(), HANDLE_FLAG_INHERIT, 0), "SetHandleInformation");

    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write_end.get();
    startup.hStdError = write_end.get();
    PROCESS_INFORMATION started{};
    require(
        CreateProcessW(
            nullptr,
            command_line.data(),
            nullptr,
            nullptr,
            TRUE,
            CREATE_NO_WINDOW,
            nullptr,
            nullptr,
            &startup,
            &started),
        "CreateProcessW");
    const kernel_handle process{started.hProcess};
    const kernel_handle thread{started.hThread};
    write_end = kernel_handle{};

    std::string output;
    std::jthread reader{[&] { output = read_all(read_end.get()); }};
    if (WaitForSingleObject(process.get(), static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), WAIT_TIMEOUT);
        WaitForSingleObject(process.get(), INFINITE);
    }
    reader.join();
    DWORD exit_code = 0;
    require(GetExitCodeProcess(process.get(), &exit_code), "GetExitCodeProcess");
    return {.exit_code = exit_code, .output = std::move(output)};
}

} // namespace test_support
