#pragma once

#include <chrono>

namespace test_support {

// Gives the running test this much time from now on, instead of one minute in all. A test that exceeds its
// limit ends the program, which prints its name.
void allow_test(std::chrono::milliseconds limit);

} // namespace test_support
