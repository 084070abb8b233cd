#pragma once

#include <filesystem>
#include <string>

namespace toy_powershell {

// The whole file, byte for byte. Throws std::runtime_error where it cannot be read.
std::string read_file(const std::filesystem::path& path);

// The content of the entry `name` of a ZIP archive. Throws std::runtime_error where the archive is no such
// one, has no such entry, or packs it by another method than storing or deflating.
std::string read_archive_entry(const std::filesystem::path& archive, const std::string& name);

} // namespace toy_powershell
