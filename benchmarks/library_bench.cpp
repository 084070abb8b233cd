// The library against an empty one: size and load time.

#include "benchmarks/benchmarks.h"
#include "support/child_process.h"

#include <filesystem>
#include <stdexcept>

namespace benchmarks {
namespace {

constexpr const wchar_t* OURS = L"custom_actions.dll";
constexpr const wchar_t* EMPTY = L"empty_action.dll";

double kilobytes(const wchar_t* library)
{
    return static_cast<double>(std::filesystem::file_size(test_support::beside_this_program(library))) / 1024;
}

round_of_times loading(const wchar_t* library)
{
    return [path = test_support::beside_this_program(library)] {
        return std::vector{milliseconds([&] {
            HMODULE module = LoadLibraryW(path.c_str());
            if (module == nullptr) {
                throw std::runtime_error{"a library does not load"};
            }
            FreeLibrary(module);
        })};
    };
}

} // namespace

void measure_library(report& results)
{
    results.at_most("the library's size", "KB", kilobytes(OURS), kilobytes(EMPTY), 400);
    const auto times = median_times({loading(OURS), loading(EMPTY)});
    results.at_most_above("the library loaded and freed", "ms", times[0][0], times[1][0], 2);
}

} // namespace benchmarks
