// Running a child and reading its output, against the bare calls: start and wait, or read one pipe to its
// end.

#include "benchmarks/benchmarks.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/packages/hidden_process.h"
#include "support/child_process.h"

#include <array>
#include <stdexcept>
#include <string>

namespace benchmarks {
namespace {

using custom_actions::kernel_handle;

constexpr std::size_t PRINTED_BYTES = std::size_t{64} * 1024 * 1024;

std::wstring child_that_prints(std::size_t bytes)
{
    return L'"' + test_support::this_program() + L"\" --print=" + std::to_wstring(bytes);
}

void require_done(BOOL done, const char* what)
{
    if (!done) {
        throw std::runtime_error{what};
    }
}

kernel_handle start(std::wstring command_line, STARTUPINFOW& startup)
{
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    require_done(
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
        "a child does not start");
    CloseHandle(started.hThread);
    return kernel_handle{started.hProcess};
}

void bare_start()
{
    STARTUPINFOW startup{};
    const kernel_handle child = start(child_that_prints(0), startup);
    WaitForSingleObject(child.get(), INFINITE);
}

void bare_read()
{
    SECURITY_ATTRIBUTES inheritable{
        .nLength = sizeof inheritable, .lpSecurityDescriptor = nullptr, .bInheritHandle = TRUE};
    kernel_handle read_end;
    kernel_handle write_end;
    require_done(CreatePipe(read_end.put(), write_end.put(), &inheritable, 0), "no pipe");
    require_done(SetHandleInformation(read_end.get(), HANDLE_FLAG_INHERIT, 0), "no pipe");
    STARTUPINFOW startup{};
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write_end.get();
    const kernel_handle child = start(child_that_prints(PRINTED_BYTES), startup);
    write_end = {};
    std::array<char, 4095> bytes{};
    std::size_t total = 0;
    DWORD size = 0;
    while (ReadFile(read_end.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &size, nullptr)) {
        total += size;
    }
    WaitForSingleObject(child.get(), INFINITE);
    require_done(total == PRINTED_BYTES, "the output is incomplete");
}

void run_child(std::size_t bytes)
{
    const auto result = custom_actions::run_hidden_process(child_that_prints(bytes));
    require_done(result.exit_code == 0 && result.output.size() == bytes, "the output is incomplete");
}

} // namespace

void print_as_child(std::size_t bytes)
{
    const std::string block(std::size_t{64} * 1024, 'x');
    for (std::size_t printed = 0; printed < bytes; printed += block.size()) {
        DWORD written = 0;
        WriteFile(
            GetStdHandle(STD_OUTPUT_HANDLE),
            block.data(),
            static_cast<DWORD>(block.size()),
            &written,
            nullptr);
    }
}

void measure_hidden_process(report& results)
{
    const auto starting = median_times(
        {[] { return std::vector{milliseconds([] { run_child(0); })}; },
         [] { return std::vector{milliseconds(bare_start)}; }});
    results.against_floor(
        "hidden process: a child that prints nothing", starting[0][0], starting[1][0], 1.10);
    const auto reading = median_times(
        {[] { return std::vector{milliseconds([] { run_child(PRINTED_BYTES); })}; },
         [] { return std::vector{milliseconds(bare_read)}; }});
    results.against_floor("hidden process: 64 MiB of output", reading[0][0], reading[1][0], 1.15);
    results.note("Hidden process: above the floor is the text, 128 MiB of it, as it is converted and grows.");
}

} // namespace benchmarks
