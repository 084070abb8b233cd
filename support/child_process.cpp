#include "tests/support/child_process.h"

#include "custom_actions/common/scoped_handle.h"

#include <array>
#include <system_error>
#include <vector>

namespace test_support {
namespace {

using custom_actions::kernel_handle;

void require(BOOL done, const char* what)
{
    if (done == FALSE) {
        throw std::system_error{static_cast<int>(GetLastError()), std::system_category(), what};
    }
}

// A new file that goes when it is closed. A child that inherits it writes into it for as long as it likes,
// and nobody waits for that as they would at the end of a pipe.
kernel_handle output_file()
{
    std::array<wchar_t, MAX_PATH> folder{};
    std::array<wchar_t, MAX_PATH> path{};
    require(GetTempPathW(static_cast<DWORD>(folder.size()), folder.data()) != 0, "GetTempPathW");
    require(GetTempFileNameW(folder.data(), L"out", 0, path.data()) != 0, "GetTempFileNameW");
    SECURITY_ATTRIBUTES inheritable{
        .nLength = sizeof inheritable, .lpSecurityDescriptor = nullptr, .bInheritHandle = TRUE};
    kernel_handle file{CreateFileW(
        path.data(),
        GENERIC_READ | GENERIC_WRITE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        &inheritable,
        CREATE_ALWAYS,
        FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE,
        nullptr)};
    require(file.get() != INVALID_HANDLE_VALUE, "CreateFileW");
    return file;
}

// All that was written to the file. Its position, which the child shares, is back at the start then.
std::string content_of(HANDLE file)
{
    SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    std::string text;
    std::array<char, 4096> chunk{};
    DWORD read = 0;
    while (ReadFile(file, chunk.data(), static_cast<DWORD>(chunk.size()), &read, nullptr) != FALSE &&
           read != 0) {
        text.append(chunk.data(), read);
    }
    return text;
}

// For a child that inherits this one handle, whatever others of this process are inheritable. The handle
// stays where it is.
class only_handle {
public:
    explicit only_handle(HANDLE& handle)
    {
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        memory_.resize(size);
        require(InitializeProcThreadAttributeList(list(), 1, 0, &size), "InitializeProcThreadAttributeList");
        require(
            UpdateProcThreadAttribute(
                list(),
                0,
                PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                static_cast<void*>(&handle),
                sizeof handle,
                nullptr,
                nullptr),
            "UpdateProcThreadAttribute");
    }

    ~only_handle() { DeleteProcThreadAttributeList(list()); }

    only_handle(const only_handle&) = delete;
    only_handle& operator=(const only_handle&) = delete;

    [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST list()
    {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data());
    }

private:
    std::vector<char> memory_;
};

} // namespace

std::wstring this_program()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

child_result run_child(std::wstring command_line, std::chrono::milliseconds limit)
{
    const kernel_handle output = output_file();
    HANDLE inherited = output.get();
    only_handle inheritance{inherited};
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdOutput = inherited;
    startup.StartupInfo.hStdError = inherited;
    startup.lpAttributeList = inheritance.list();
    PROCESS_INFORMATION started{};
    require(
        CreateProcessW(
            nullptr,
            command_line.data(),
            nullptr,
            nullptr,
            TRUE,
            CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT,
            nullptr,
            nullptr,
            &startup.StartupInfo,
            &started),
        "CreateProcessW");
    const kernel_handle process{started.hProcess};
    const kernel_handle thread{started.hThread};

    if (WaitForSingleObject(process.get(), static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), WAIT_TIMEOUT);
        WaitForSingleObject(process.get(), 5000);
    }
    DWORD exit_code = 0;
    require(GetExitCodeProcess(process.get(), &exit_code), "GetExitCodeProcess");
    return {.exit_code = exit_code, .output = content_of(output.get())};
}

} // namespace test_support
