#pragma once

#include <algorithm>

namespace custom_actions {

template <class Range, class Value>
bool contains(const Range& range, const Value& value)
{
    return std::ranges::find(range, value) != std::ranges::end(range);
}

} // namespace custom_actions
