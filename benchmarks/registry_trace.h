#pragma once

#include <functional>
#include <string>
#include <vector>

namespace benchmarks {

// The calls that `work` makes to the ANSI registry functions (and to the few others that the property handler
// uses), one line each in order: the function, its texts, masks and sizes, and its result. Written data is
// not shown. Throws std::runtime_error if this program does not import one of the functions.
std::vector<std::string> trace_registry_calls(const std::function<void()>& work);

} // namespace benchmarks
