// Runs every benchmark, or the named one, and prints one table. A missed aim is no failure, since the figures
// depend on the machine; exits with 1 if something did not run or two sides did not do the same.

#include "benchmarks/benchmarks.h"
#include "support/disposable_machine.h"

#include <cstdio>
#include <exception>
#include <string>
#include <utility>

namespace {

constexpr std::pair<const char*, void (*)(benchmarks::report&)> BENCHMARKS[]{
    {"library", benchmarks::measure_library},
    {"action_costs", benchmarks::measure_action_costs},
    {"property_handler", benchmarks::measure_property_handler},
    {"processes", benchmarks::measure_processes},
    {"hidden_process", benchmarks::measure_hidden_process},
};

} // namespace

int main(int argc, char** argv)
{
    try {
        const std::string argument = argc > 1 ? argv[1] : "";
        if (argument.starts_with("--print=")) {
            benchmarks::print_as_child(std::stoul(argument.substr(8)));
            return 0;
        }
        if (argument.starts_with("--peak-memory=")) {
            benchmarks::print_peak_memory(argument.substr(14));
            return 0;
        }
        if (!test_support::machine_is_disposable()) {
            std::fputs(
                "This installs packages on the machine: set DISPOSABLE_MACHINE to allow it.\n", stderr);
            return 1;
        }
        benchmarks::report report;
        for (const auto& [name, measure] : BENCHMARKS) {
            if (argument.empty() || argument == name) {
                measure(report);
            }
        }
        report.print();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "FAILED: %s\n", error.what());
        return 1;
    }
}
