// The library against an empty one: size, load time, and peak memory of its heaviest action.

#include "benchmarks/benchmarks.h"
#include "support/child_process.h"
#include "support/registry_sandbox.h"

#include <msi.h>
#include <psapi.h>

#include <bit>
#include <chrono>
#include <filesystem>
#include <stdexcept>

namespace benchmarks {
namespace {

constexpr const char* OURS = "custom_actions.dll";
constexpr const char* EMPTY = "empty_action.dll";
constexpr int PROGID_COUNT = 20'000;

std::filesystem::path beside_this_program(const std::string& library)
{
    return std::filesystem::path{test_support::this_program()}.parent_path() / library;
}

double kilobytes(std::uintmax_t bytes)
{
    return static_cast<double>(bytes) / 1024;
}

double file_size(const char* library)
{
    return kilobytes(std::filesystem::file_size(beside_this_program(library)));
}

HMODULE load(const std::string& library)
{
    HMODULE module = LoadLibraryW(beside_this_program(library).c_str());
    if (module == nullptr) {
        throw std::runtime_error{library + " does not load"};
    }
    return module;
}

round_of_times loading(const char* library)
{
    return [library] { return std::vector{milliseconds([library] { FreeLibrary(load(library)); })}; };
}

// The peak working set in KB of a new process that runs the action.
double peak_memory(const char* library, const char* function)
{
    const std::string arguments = std::string{" --peak-memory="} + library + ":" + function;
    const auto child = test_support::run_child(
        L'"' + test_support::this_program() + L'"' + std::wstring{arguments.begin(), arguments.end()},
        std::chrono::minutes{2});
    if (child.exit_code != 0) {
        throw std::runtime_error{"peak memory was not measured: " + child.output};
    }
    return std::stod(child.output);
}

// Plants ProgIds of the user; every tenth has another maker's icon handler, which a removal keeps.
void plant_progids(int count)
{
    for (int i = 0; i != count; ++i) {
        const std::wstring progid =
            std::wstring{LR"(Software\Classes)"} + LR"(\some.program.)" + std::to_wstring(i);
        if (i % 10 == 0) {
            test_support::plant_value(
                HKEY_CURRENT_USER,
                progid + LR"(\ShellEx\IconHandler)",
                L"",
                test_support::registry_text(L"{11111111-2222-3333-4444-555555555555}"));
        } else {
            test_support::plant_value(
                HKEY_CURRENT_USER, progid, L"", test_support::registry_text(L"a program"));
        }
    }
}

} // namespace

void print_peak_memory(const std::string& action)
{
    const std::size_t separator = action.find(':');
    const std::string name = action.substr(separator + 1);
    const auto function = std::bit_cast<UINT(__stdcall*)(MSIHANDLE)>(
        GetProcAddress(load(action.substr(0, separator)), name.c_str()));
    if (function == nullptr) {
        throw std::runtime_error{"there is no " + action};
    }
    const test_support::registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const test_support::registry_sandbox user{HKEY_CURRENT_USER};
    plant_progids(PROGID_COUNT);
    {
        const redirected_output silence{"NUL"};
        function(1); // an invalid session handle: log lines are dropped
    }
    PROCESS_MEMORY_COUNTERS memory{};
    GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
    std::printf("%.0f\n", kilobytes(memory.PeakWorkingSetSize));
}

void measure_library(report& results)
{
    results.beside_empty("the library's size", "KB", file_size(OURS), file_size(EMPTY), 400);
    const auto times = median_times({loading(OURS), loading(EMPTY)});
    results.above_empty("the library loaded and freed", "ms", times[0][0], times[1][0], 2);
    results.above_empty(
        "peak memory, iconhandler_remove_registry over " + std::to_string(PROGID_COUNT) + " ProgIds",
        "KB",
        peak_memory(OURS, "iconhandler_remove_registry"),
        peak_memory(EMPTY, "empty_action"),
        1024);
}

} // namespace benchmarks
