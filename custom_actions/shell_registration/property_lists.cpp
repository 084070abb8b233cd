#include "custom_actions/shell_registration/property_lists.h"

#include "custom_actions/shell_registration/file_type_tables.h"

namespace custom_actions {
namespace {

std::string joined(std::string_view first, std::string_view second)
{
    return std::string{first}.append(second);
}

std::optional<std::string> without(const std::string& list, const std::string& pattern)
{
    const std::size_t found = list.find(pattern);
    if (found == std::string::npos) {
        return std::nullopt;
    }
    return std::string{list}.erase(found, pattern.size());
}

} // namespace

std::optional<std::string> with_infotip_extra(const std::string& list)
{
    if (list.empty() || list.find(INFOTIP_EXTRA_PROPERTY) != std::string::npos) {
        return std::nullopt;
    }
    return list + joined(PROPERTY_SEPARATOR, INFOTIP_EXTRA_PROPERTY);
}

std::optional<std::string> with_full_details_extra(const std::string& list, std::string_view property)
{
    const std::size_t anchor = list.find(FULL_DETAILS_ANCHOR);
    if (anchor == std::string::npos || list.find(property) != std::string::npos) {
        return std::nullopt;
    }
    return std::string{list}.insert(
        anchor + FULL_DETAILS_ANCHOR.size(), joined(property, PROPERTY_SEPARATOR));
}

std::optional<std::string> without_infotip_extra(const std::string& list)
{
    for (const std::string& pattern :
         {joined(PROPERTY_SEPARATOR, INFOTIP_EXTRA_PROPERTY),
          joined(INFOTIP_EXTRA_PROPERTY, PROPERTY_SEPARATOR),
          std::string{INFOTIP_EXTRA_PROPERTY}}) {
        if (auto shorter = without(list, pattern)) {
            return shorter;
        }
    }
    return std::nullopt;
}

std::optional<std::string> without_full_details_extra(const std::string& list, std::string_view property)
{
    return without(list, joined(property, PROPERTY_SEPARATOR));
}

} // namespace custom_actions
