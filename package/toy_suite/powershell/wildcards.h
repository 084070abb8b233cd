#pragma once

#include <string>

namespace toy_powershell {

// The path that a parameter names which takes patterns: letters in brackets stand for one of them, so that
// "x[1]" names "x1" and never itself. One without brackets names itself. Throws std::runtime_error when no
// file fits the pattern, or more than one.
std::wstring path_named_by(const std::wstring& pattern);

} // namespace toy_powershell
