#include "custom_actions/processes/module_pattern.h"

namespace custom_actions {
namespace {

constexpr wchar_t fold(wchar_t unit) noexcept
{
    return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit - L'A' + L'a') : unit;
}

} // namespace

bool matches_module_pattern(std::wstring_view name, std::wstring_view pattern) noexcept
{
    constexpr std::size_t none = std::wstring_view::npos;
    std::size_t at = 0;
    std::size_t in_pattern = 0;
    std::size_t after_star = none; // the position behind the last star of the pattern
    std::size_t star_end = 0;      // the end of what that star stands for in the name
    while (at != name.size()) {
        if (in_pattern != pattern.size() && pattern[in_pattern] == L'*') {
            after_star = ++in_pattern;
            star_end = at;
        } else if (in_pattern != pattern.size() && fold(pattern[in_pattern]) == fold(name[at])) {
            ++in_pattern;
            ++at;
        } else if (after_star != none) {
            in_pattern = after_star;
            at = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(L'*', in_pattern) == none;
}

} // namespace custom_actions
