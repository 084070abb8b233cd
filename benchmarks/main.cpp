// Runs every benchmark and prints one table. Ends with 0 whether or not an aim is met, since the figures are
// the machine's as much as ours, and with 1 where something did not run or two sides did not do the same.

#include "benchmarks/benchmarks.h"
#include "tests/support/installation.h"

#include <cstdio>
#include <exception>
#include <string>

int main(int argc, char** argv)
{
    try {
        const std::string argument = argc > 1 ? argv[1] : "";
        if (argument.starts_with("--print=")) {
            benchmarks::print_as_child(std::stoul(argument.substr(8)));
            return 0;
        }
        if (!test_support::machine_is_disposable()) {
            std::fputs(
                "Packages would be installed on this machine: set DISPOSABLE_MACHINE if they may.\n", stderr);
            return 1;
        }
        benchmarks::report report;
        benchmarks::measure_property_handler(report);
        benchmarks::measure_icon_sweep(report);
        benchmarks::measure_processes(report);
        benchmarks::measure_hidden_process(report);
        report.print();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "FAILED: %s\n", error.what());
        return 1;
    }
}
