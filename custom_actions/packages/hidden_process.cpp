#include "custom_actions/packages/hidden_process.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <array>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

namespace custom_actions {
namespace {

constexpr std::size_t PIECE_SIZE = 4095; // bytes

struct output_pipe {
    kernel_handle read_end;
    kernel_handle write_end; // the child's

    // False if it cannot be made.
    bool create() noexcept
    {
        SECURITY_ATTRIBUTES inheritable{
            .nLength = sizeof inheritable, .lpSecurityDescriptor = nullptr, .bInheritHandle = TRUE};
        return CreatePipe(read_end.put(), write_end.put(), &inheritable, 0) &&
               SetHandleInformation(read_end.get(), HANDLE_FLAG_INHERIT, 0);
    }
};

// Reads one pipe to its end on a thread of its own, so that the child never waits for room in the pipe.
class pipe_reader {
public:
    // Throws windows_error "Cannot read output of a hidden process"; the pipe is then closed.
    explicit pipe_reader(kernel_handle read_end)
        : pipe_{std::move(read_end)}, thread_{CreateThread(nullptr, 0, run, this, 0, nullptr)}
    {
        check_bool(thread_, "Cannot read output of a hidden process");
    }

    ~pipe_reader() { WaitForSingleObject(thread_.get(), INFINITE); }

    pipe_reader(const pipe_reader&) = delete;
    pipe_reader& operator=(const pipe_reader&) = delete;

    // The text, once the pipe is at its end. Throws std::bad_alloc if there was no memory for all of it.
    std::wstring wait()
    {
        WaitForSingleObject(thread_.get(), INFINITE);
        if (out_of_memory_) {
            throw std::bad_alloc{};
        }
        return std::move(text_);
    }

private:
    static DWORD WINAPI run(void* reader)
    {
        static_cast<pipe_reader*>(reader)->read_all();
        return 0;
    }

    // Reads on if there is no memory for the text: the child waits for room in the pipe.
    void read_all() noexcept
    {
        std::array<char, PIECE_SIZE> bytes{};
        std::array<wchar_t, PIECE_SIZE> characters{}; // there are never more of them than bytes
        DWORD size = 0;
        while (ReadFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &size, nullptr)) {
            const int length = MultiByteToWideChar(
                CP_UTF8,
                0,
                bytes.data(),
                static_cast<int>(size),
                characters.data(),
                static_cast<int>(characters.size()));
            keep({characters.data(), static_cast<std::size_t>(length)});
        }
    }

    void keep(std::wstring_view piece) noexcept
    {
        try {
            text_.append(piece);
        } catch (const std::exception&) { // no exception may leave the thread
            out_of_memory_ = true;
        }
    }

    kernel_handle pipe_;
    std::wstring text_;
    bool out_of_memory_ = false;
    kernel_handle thread_; // last, since it uses the others
};

// An empty handle if the process cannot be started.
kernel_handle start_hidden(std::wstring command_line, HANDLE output, HANDLE error) noexcept
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = error;
    PROCESS_INFORMATION started{};
    wchar_t* const line = command_line.data();
    if (!CreateProcessW(
            nullptr, line, nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &startup, &started)) {
        return {};
    }
    const kernel_handle thread{started.hThread};
    return kernel_handle{started.hProcess};
}

} // namespace

process_output run_hidden_process(const std::wstring& command_line)
{
    process_output result;
    output_pipe output;
    output_pipe error;
    kernel_handle process;
    if (output.create() && error.create()) {
        process = start_hidden(command_line, output.write_end.get(), error.write_end.get());
    }
    if (!process) {
        result.error = L"Failed to launch PowerShell process.";
        return result;
    }
    output.write_end = {};
    error.write_end = {};
    pipe_reader output_reader{std::move(output.read_end)};
    pipe_reader error_reader{std::move(error.read_end)};
    WaitForSingleObject(process.get(), INFINITE);
    GetExitCodeProcess(process.get(), &result.exit_code);
    result.output = output_reader.wait();
    result.error = error_reader.wait();
    return result;
}

} // namespace custom_actions
