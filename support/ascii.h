#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

namespace test_support {

// Converts `text`, which must be ASCII.
inline std::string as_ascii(std::wstring_view text)
{
    std::string bytes;
    std::ranges::transform(
        text, std::back_inserter(bytes), [](wchar_t unit) { return static_cast<char>(unit); });
    return bytes;
}

} // namespace test_support
