#pragma once

#include <string>

namespace custom_actions {

// The Windows directory, without a separator at its end. Throws std::runtime_error "Cannot resolve Windows
// directory" where it cannot be told or has 260 characters or more.
std::wstring windows_directory();

// The system directory, likewise; what it throws says `failure`.
std::wstring system_directory(const char* failure);

} // namespace custom_actions
