#pragma once

#include "benchmarks/harness.h"

// The benchmarks: each adds its rows to the report, and throws where something did not run.
namespace benchmarks {

void measure_property_handler(report& results);
void measure_processes(report& results);
void measure_hidden_process(report& results);
void measure_action_costs(report& results);
void measure_library(report& results);

// What this program does as the child of a benchmark. Prints this much.
void print_as_child(std::size_t bytes);

// Runs an action, "<library>:<function>", and prints the most memory that this process has had, in kilobytes.
void print_peak_memory(const std::string& action);

} // namespace benchmarks
