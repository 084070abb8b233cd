#include "package/toy_suite/powershell/wildcards.h"

#include "package/toy_suite/powershell/text.h"

#include <filesystem>
#include <regex>
#include <stdexcept>
#include <vector>

namespace toy_powershell {
namespace {

// The files of a folder whose names match.
std::vector<std::filesystem::path>
files_named_by(const std::filesystem::path& folder, const std::wstring& pattern)
{
    // Brackets mean the same in a regular expression; all other special characters are escaped.
    const std::wregex special{LR"([.^$*+?(){}|\\])"};
    const std::wregex names{std::regex_replace(pattern, special, LR"(\$&)"), std::regex::icase};
    std::vector<std::filesystem::path> found;
    for (const auto& file : std::filesystem::directory_iterator{folder}) {
        if (std::regex_match(file.path().filename().native(), names)) {
            found.push_back(file.path());
        }
    }
    return found;
}

} // namespace

std::wstring path_named_by(const std::wstring& pattern)
{
    std::filesystem::path found;
    for (const std::filesystem::path& part : std::filesystem::path{pattern}) {
        if (part.native().find(L'[') == std::wstring::npos) {
            found /= part;
            continue;
        }
        const auto files = files_named_by(found, part.native());
        if (files.size() != 1) {
            throw std::runtime_error{"Cannot find path '" + narrow(pattern) + "' because it does not exist."};
        }
        found = files.front();
    }
    return found.native();
}

} // namespace toy_powershell
