#pragma once

#include <string_view>

namespace custom_actions {

// Whether the whole of `name` fits `pattern`, in which "*" stands for any run of characters. The case of
// ASCII letters does not count.
bool matches_module_pattern(std::wstring_view name, std::wstring_view pattern) noexcept;

} // namespace custom_actions
