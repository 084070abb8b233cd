#pragma once

#include <string>
#include <string_view>

namespace toy_powershell {

// UTF-16 to UTF-8 and back; invalid input becomes U+FFFD.
std::string narrow(std::wstring_view text);
std::wstring widen(std::string_view text);

// Compares ordinally; stands for PowerShell's -eq and -like.
bool equal_ignoring_case(std::wstring_view left, std::wstring_view right);

} // namespace toy_powershell
