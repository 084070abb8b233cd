#pragma once

#include "benchmarks/harness.h"

// Each benchmark adds its rows to the report and throws if something did not run.
namespace benchmarks {

void measure_property_handler(report& results);
void measure_processes(report& results);
void measure_hidden_process(report& results);
void measure_action_costs(report& results);
void measure_library(report& results);

// For this program as the child of a benchmark: prints `bytes` characters.
void print_as_child(std::size_t bytes);

// For the same: runs an action, "<library>:<function>", and prints the process's peak working set in KB.
void print_peak_memory(const std::string& action);

} // namespace benchmarks
