#include "custom_actions/common/text.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace custom_actions {

std::wstring widen(std::string_view text)
{
    std::wstring wide;
    wide.reserve(text.size());
    std::ranges::transform(text, std::back_inserter(wide), [](char byte) {
        return static_cast<wchar_t>(static_cast<signed char>(byte));
    });
    return wide;
}

bool equal_ignoring_case(std::wstring_view left, std::wstring_view right) noexcept
{
    return CompareStringOrdinal(
               left.data(),
               static_cast<int>(left.size()),
               right.data(),
               static_cast<int>(right.size()),
               TRUE) == CSTR_EQUAL;
}

std::uint32_t parse_unsigned(std::wstring_view text)
{
    if (text.empty() || text.find_first_not_of(L"0123456789") != std::wstring_view::npos) {
        throw std::invalid_argument{"invalid stoul argument"};
    }
    std::uint64_t value = 0;
    for (const wchar_t digit : text) {
        value = value * 10 + static_cast<std::uint64_t>(digit - L'0');
        if (value > std::numeric_limits<std::uint32_t>::max()) {
            throw std::out_of_range{"stoul argument out of range"};
        }
    }
    return static_cast<std::uint32_t>(value);
}

} // namespace custom_actions
