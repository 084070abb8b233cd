#include "custom_actions/common/path.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace custom_actions {
namespace {

constexpr const wchar_t* SEPARATORS = LR"(\/)";

bool is_separator(wchar_t character) noexcept
{
    return character == L'\\' || character == L'/';
}

bool begins_with_drive(std::wstring_view path) noexcept
{
    return path.size() >= 2 && path[1] == L':' &&
           ((path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z'));
}

// The length of the drive or the server's name at the beginning.
std::size_t root_name_length(std::wstring_view path) noexcept
{
    if (begins_with_drive(path)) {
        return 2;
    }
    if (path.size() > 2 && is_separator(path[0]) && is_separator(path[1]) && !is_separator(path[2])) {
        return std::min(path.find_first_of(SEPARATORS, 2), path.size());
    }
    return 0;
}

// The length of the root's name and the separators behind it.
std::size_t root_length(std::wstring_view path) noexcept
{
    return std::min(path.find_first_not_of(SEPARATORS, root_name_length(path)), path.size());
}

std::vector<std::wstring_view> normalized_components(std::wstring_view relative, bool below_root)
{
    std::vector<std::wstring_view> components;
    while (!relative.empty()) {
        const std::size_t end = std::min(relative.find_first_of(SEPARATORS), relative.size());
        const std::wstring_view component = relative.substr(0, end);
        relative.remove_prefix(std::min(end + 1, relative.size()));
        if (component != L"..") {
            if (!component.empty() && component != L".") {
                components.push_back(component);
            }
        } else if (!components.empty() && components.back() != L"..") {
            components.pop_back();
        } else if (!below_root) {
            components.push_back(component);
        }
    }
    return components;
}

} // namespace

bool is_absolute_path(std::wstring_view path) noexcept
{
    const std::size_t name = root_name_length(path);
    return name != 0 && root_length(path) > name;
}

std::wstring_view file_name(std::wstring_view path) noexcept
{
    const std::wstring_view relative = path.substr(root_length(path));
    return relative.substr(relative.find_last_of(SEPARATORS) + 1);
}

std::wstring_view file_extension(std::wstring_view path) noexcept
{
    std::wstring_view name = file_name(path);
    name = name.substr(0, name.find(L':'));
    const std::size_t dot = name.rfind(L'.');
    const bool has_none = dot == std::wstring_view::npos || dot == 0 || name == L"..";
    return has_none ? std::wstring_view{} : name.substr(dot);
}

std::wstring_view parent_folder(std::wstring_view path) noexcept
{
    const std::size_t root = root_length(path);
    std::size_t end = path.size() - file_name(path).size();
    while (end > root && is_separator(path[end - 1])) {
        --end;
    }
    return path.substr(0, end);
}

std::wstring join_path(std::wstring_view folder, std::wstring_view name)
{
    std::wstring path{folder};
    if (!path.empty() && !is_separator(path.back())) {
        path += L'\\';
    }
    return path.append(name);
}

std::wstring normalized_folder(std::wstring_view path)
{
    const std::size_t name = root_name_length(path);
    const std::size_t root = root_length(path);
    std::wstring folder{path.substr(0, name)};
    std::ranges::replace(folder, L'/', L'\\');
    if (root > name) {
        folder += L'\\';
    }
    std::size_t count = 0;
    for (const std::wstring_view component : normalized_components(path.substr(root), root > name)) {
        folder.append(count++ == 0 ? L"" : L"\\").append(component);
    }
    return folder.empty() && !path.empty() ? L"." : folder;
}

} // namespace custom_actions
