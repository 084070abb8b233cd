#pragma once

#include <cstdlib>

namespace test_support {

// True if tests may change this machine: the environment variable DISPOSABLE_MACHINE is set, as
// scripts/wine.sh does for the project's own Wine prefix. Otherwise such tests skip and name the variable.
inline bool machine_is_disposable()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment is changed on one thread alone
    return std::getenv("DISPOSABLE_MACHINE") != nullptr;
}

} // namespace test_support
