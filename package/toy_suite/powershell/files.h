#pragma once

#include <filesystem>
#include <string>

namespace toy_powershell {

// The path that a wildcard pattern matches. Brackets match one of the characters in them: "x[1]" matches "x1"
// and not itself. Without brackets, returns the pattern. Throws std::exception unless exactly one file
// matches; a folder with brackets matches none.
std::wstring path_named_by(const std::wstring& pattern);

// The manifest of a package, which must be a ZIP archive whose first entry is AppxManifest.xml, stored and
// not compressed. Throws std::runtime_error otherwise.
std::string read_manifest(const std::filesystem::path& package);

} // namespace toy_powershell
