#pragma once

#include "benchmarks/harness.h"

// Each benchmark adds its rows to the report and throws if something did not run.
namespace benchmarks {

void measure_library(report& results);
void measure_action_costs(report& results);
void measure_property_handler(report& results);
void measure_closing(report& results);

} // namespace benchmarks
