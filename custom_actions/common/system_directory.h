#pragma once

#include <string>

namespace custom_actions {

// The Windows directory, without a separator at its end. Throws std::runtime_error "Cannot resolve Windows
// directory" if it cannot be read or has 260 characters or more.
std::wstring windows_directory();

// The system directory, likewise. Throws std::runtime_error `failure`.
std::wstring system_directory(const char* failure);

} // namespace custom_actions
