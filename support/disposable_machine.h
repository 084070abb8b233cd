#pragma once

#include <cstdlib>

namespace test_support {

// Whether the machine may be changed, which the environment variable DISPOSABLE_MACHINE says; scripts/wine.sh
// sets it for the project's own Wine prefix. A test that needs it skips with the name of the variable
// otherwise.
inline bool machine_is_disposable()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment is changed on one thread alone
    return std::getenv("DISPOSABLE_MACHINE") != nullptr;
}

} // namespace test_support
