#pragma once

#include <windows.h>

#include <system_error>

namespace test_support {

// Throws std::system_error if `result` is not ERROR_SUCCESS.
inline void require(UINT result, const char* what)
{
    if (result != ERROR_SUCCESS) {
        throw std::system_error{static_cast<int>(result), std::system_category(), what};
    }
}

inline void require(LSTATUS result, const char* what)
{
    require(static_cast<UINT>(result), what);
}

} // namespace test_support
