#include "custom_actions/shell_registration/property_handler.h"

#include "custom_actions/shell_registration/file_type_tables.h"

#include <cstdio>

namespace custom_actions {

handler_choice choose_handler(bool has_handler, bool is_ours, bool may_be_overridden) noexcept
{
    if (!has_handler) {
        return handler_choice::install;
    }
    return may_be_overridden && !is_ours ? handler_choice::override : handler_choice::keep;
}

std::string property_handler_path(std::string_view extension)
{
    return std::string{PROPERTY_HANDLER_PREFIX}.append(extension);
}

std::string file_association_path(std::string_view extension)
{
    return std::string{FILE_ASSOCIATION_PREFIX}.append(extension);
}

std::string read_details_list(const ansi_registry_key& key, const char* name, DWORD limit)
{
    registry_value list;
    key.read(name, limit, list);
    return list.text();
}

void write_console_line(const std::string& text)
{
    static_cast<void>(std::fputs((text + '\n').c_str(), stdout)); // nobody need be listening
}

} // namespace custom_actions
