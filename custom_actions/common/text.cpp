#include "custom_actions/common/text.h"

#include <windows.h>

#include <algorithm>
#include <iterator>

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

} // namespace custom_actions
