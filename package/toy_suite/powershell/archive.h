#pragma once

#include <filesystem>
#include <string>

namespace toy_powershell {

// The file's bytes. Throws std::runtime_error if it cannot be opened.
std::string read_file(const std::filesystem::path& path);

// The content of the entry `name` of a ZIP archive. Throws std::runtime_error if the file is no ZIP archive,
// has no such entry, or compresses it with a method other than deflate.
std::string read_archive_entry(const std::filesystem::path& archive, const std::string& name);

} // namespace toy_powershell
