#pragma once

#include <chrono>

namespace test_support {

// How long the running test may take from here on, instead of the minute that every test has. One that takes
// longer ends the whole program, with its name.
void allow_test(std::chrono::milliseconds limit);

} // namespace test_support
