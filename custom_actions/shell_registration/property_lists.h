#pragma once

#include <optional>
#include <string>
#include <string_view>

// How a detail list ("prop:A;B;C") changes when a property is added or removed. Each function returns the new
// list, or nothing if the list stays as it is.
namespace custom_actions {

// Appends INFOTIP_EXTRA_PROPERTY, unless the list is empty or has it already, as any part of its text.
std::optional<std::string> with_infotip_extra(const std::string& list);

// Inserts `property` right after the anchor, unless the list is empty, has no anchor, or has the property
// already, as any part of its text. Several properties therefore end up in the reverse order of insertion.
std::optional<std::string> with_full_details_extra(const std::string& list, std::string_view property);

// Removes one INFOTIP_EXTRA_PROPERTY: with the separator before it, or else the one after it, or else alone.
std::optional<std::string> without_infotip_extra(const std::string& list);

// Removes the first `property` that has a separator after it, with that separator.
std::optional<std::string> without_full_details_extra(const std::string& list, std::string_view property);

} // namespace custom_actions
