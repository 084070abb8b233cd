// Runs every benchmark and prints one table on standard error; standard output takes the lines of the
// measured actions. A missed aim is no failure, since the figures depend on the machine; exits with 1 if
// something did not run.

#include "benchmarks/benchmarks.h"
#include "support/disposable_machine.h"

#include <exception>
#include <iostream>

int main()
{
    try {
        if (!test_support::machine_is_disposable()) {
            std::cerr << "This installs packages on the machine: set DISPOSABLE_MACHINE to allow it.\n";
            return 1;
        }
        benchmarks::report report;
        benchmarks::measure_library(report);
        benchmarks::measure_action_costs(report);
        benchmarks::measure_property_handler(report);
        benchmarks::measure_closing(report);
        report.print(std::cerr);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "FAILED: " << error.what() << '\n';
        return 1;
    }
}
