#pragma once

#include "benchmarks/harness.h"

// The benchmarks: each adds its rows to the report, and throws where something did not run.
namespace benchmarks {

void measure_property_handler(report& results);
void measure_icon_sweep(report& results);
void measure_processes(report& results);
void measure_hidden_process(report& results);

// What this program does as the child of a benchmark: it prints this much.
void print_as_child(std::size_t bytes);

} // namespace benchmarks
