#pragma once

#include <string>
#include <string_view>

// Paths as texts: nothing here looks at the disk. A root is a drive ("C:", with or without its separator) or
// a share ("\\server\share"); both separators count.
namespace custom_actions {

// Whether the path begins at the root directory of a drive, or on a share.
bool is_absolute_path(std::wstring_view path) noexcept;

// The last component; empty where the path ends in a separator or is a root alone.
std::wstring_view file_name(std::wstring_view path) noexcept;

// The file name from its last dot on. Empty where it has none, where the name's only dot is its first
// character, and for "." and ".."; a colon (an alternate stream) ends the name.
std::wstring_view file_extension(std::wstring_view path) noexcept;

// The path without its file name and the separators in front of that, down to its root and no further.
std::wstring_view parent_folder(std::wstring_view path) noexcept;

// The path of `name` in `folder`.
std::wstring join_path(std::wstring_view folder, std::wstring_view name);

// The folder that the path names: with "\" alone as separator and one of them at a time, without "." and
// with each ".." folded into the name before it, and without a separator at its end (but a root keeps its
// own).
std::wstring normalized_folder(std::wstring_view path);

} // namespace custom_actions
