#include "custom_actions/common/text.h"

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

} // namespace custom_actions
