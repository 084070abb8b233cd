#include "package/toy_suite/powershell/files.h"

#include "package/toy_suite/powershell/text.h"

#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace toy_powershell {
namespace {

namespace fs = std::filesystem;

void require(bool fulfilled, const char* complaint)
{
    if (!fulfilled) {
        throw std::runtime_error{std::string{"The archive cannot be read: "} + complaint};
    }
}

} // namespace

std::wstring path_named_by(const std::wstring& pattern)
{
    if (pattern.find(L'[') == std::wstring::npos) {
        return pattern;
    }
    const fs::path path{pattern};
    // Brackets mean the same in a regular expression; all other special characters are escaped.
    const std::wregex special{LR"([.^$*+?(){}|\\])"};
    const std::wregex names{
        std::regex_replace(path.filename().native(), special, LR"(\$&)"), std::regex::icase};
    std::vector<std::wstring> found;
    for (const auto& file : fs::directory_iterator{path.parent_path()}) {
        if (std::regex_match(file.path().filename().native(), names)) {
            found.push_back(file.path().native());
        }
    }
    const bool in_folder = path.parent_path().native().find(L'[') != std::wstring::npos;
    if (in_folder || found.size() != 1) {
        throw std::runtime_error{"Cannot find path '" + narrow(pattern) + "' because it does not exist."};
    }
    return found.front();
}

std::string read_manifest(const fs::path& package)
{
    std::ifstream file{package, std::ios::binary};
    if (!file) {
        throw std::runtime_error{"Could not find file '" + narrow(package.native()) + "'."};
    }
    std::ostringstream content;
    content << file.rdbuf();
    const std::string bytes = content.str();

    // The first entry: a header of 30 bytes, the entry's name, extra data, the entry itself.
    constexpr std::size_t header_size = 30;
    constexpr std::string_view name = "AppxManifest.xml";
    require(bytes.size() > header_size && bytes.starts_with("PK\3\4"), "it is no ZIP archive");
    const auto number_at = [&](std::size_t offset, unsigned size) { // little-endian
        std::size_t number = 0;
        for (unsigned i = 0; i != size; ++i) {
            number |= std::size_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
        }
        return number;
    };
    require(number_at(8, 2) == 0, "the first entry is compressed, not stored");
    require(number_at(6, 2) == 0, "the first entry has flags");
    require(number_at(26, 2) == name.size(), "the first entry is no manifest");
    require(bytes.compare(header_size, name.size(), name) == 0, "the first entry is no manifest");
    const std::size_t start = header_size + name.size() + number_at(28, 2);
    const std::size_t size = number_at(18, 4);
    // The next entry or the directory follows.
    const std::size_t end = start + size;
    require(end < bytes.size() && bytes.compare(end, 2, "PK") == 0, "the first entry has another size");
    return bytes.substr(start, size);
}

} // namespace toy_powershell
