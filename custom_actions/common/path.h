#pragma once

#include <string>
#include <string_view>

// Paths as texts: nothing here looks at the disk. A root is a drive ("C:", with or without its separator) or
// a share ("\\server\share"); both separators count.
namespace custom_actions {

// Whether the path begins at the root directory of a drive, or on a share.
bool is_absolute_path(std::wstring_view path) noexcept;

// The last component; empty if the path ends in a separator or is only a root.
std::wstring_view file_name(std::wstring_view path) noexcept;

// The file name from its last dot on. Empty if there is no dot, if the only dot is the first character, and
// for "." and "..". A colon (an alternate stream) ends the name.
std::wstring_view file_extension(std::wstring_view path) noexcept;

// The path without its file name and the separators in front of it; a root stays whole.
std::wstring_view parent_folder(std::wstring_view path) noexcept;

// The path of `name` in `folder`.
std::wstring join_path(std::wstring_view folder, std::wstring_view name);

// The path in its shortest form: "\" as the only separator and never two of them, no ".", each ".." folded
// into the name before it, and no separator at the end (but a root keeps its own).
std::wstring normalized_folder(std::wstring_view path);

} // namespace custom_actions
