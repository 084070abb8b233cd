#pragma once

#include <string>

namespace custom_actions {

// A new GUID in its registry form: braces, upper case, 38 characters. Throws windows_error `creation_failure`
// or std::runtime_error `formatting_failure`.
std::wstring new_guid(const char* creation_failure, const char* formatting_failure);

} // namespace custom_actions
