#pragma once

#include <optional>
#include <string>
#include <string_view>

// What becomes of a detail list ("prop:A;B;C") when a property is put in or taken out. Each returns the new
// list, or nothing where the list stays as it is.
namespace custom_actions {

// Appends INFOTIP_EXTRA_PROPERTY, unless the list is empty or has it already (as any part of its text).
std::optional<std::string> with_infotip_extra(const std::string& list);

// Inserts `property` right after the anchor, unless the list is empty, has it already (as any part of its
// text) or has no anchor. Several properties therefore come to stand in the opposite order of their
// insertion.
std::optional<std::string> with_full_details_extra(const std::string& list, std::string_view property);

// Takes out one INFOTIP_EXTRA_PROPERTY: with the separator before it, or else the one after it, or else
// alone.
std::optional<std::string> without_infotip_extra(const std::string& list);

// Takes out the first `property` that has a separator after it, with that separator.
std::optional<std::string> without_full_details_extra(const std::string& list, std::string_view property);

} // namespace custom_actions
