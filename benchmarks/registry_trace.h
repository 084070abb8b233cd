#pragma once

#include <functional>
#include <string>
#include <vector>

namespace benchmarks {

// The calls that `work` makes to the ANSI registry functions (and to the few others of the property handler),
// a line each, in order: the function, the texts, masks and sizes that it was given, and what it returned.
// What was written shows in the hive and not here. Throws std::runtime_error where this program does not
// import one of the functions.
std::vector<std::string> trace_registry_calls(const std::function<void()>& work);

} // namespace benchmarks
