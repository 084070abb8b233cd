#include "custom_actions/shell_registration/property_handler.h"

#include "custom_actions/shell_registration/file_type_tables.h"

#include <cstdio>

namespace custom_actions {

std::string property_handler_path(std::string_view extension)
{
    return std::string{PROPERTY_HANDLER_PREFIX}.append(extension);
}

std::string file_association_path(std::string_view extension)
{
    return std::string{FILE_ASSOCIATION_PREFIX}.append(extension);
}

bool is_our_property_handler(std::string_view extension)
{
    registry_key key;
    registry_value handler;
    return key.open(HKEY_LOCAL_MACHINE, property_handler_path(extension), KEY_READ) == ERROR_SUCCESS &&
           key.read("", 1024, handler) == ERROR_SUCCESS && is_handler(handler.data) &&
           handler.text() == PROPERTY_HANDLER_CLSID;
}

std::string read_details_list(const registry_key& key, const char* name, DWORD limit)
{
    registry_value list;
    key.read(name, limit, list);
    return list.text();
}

void log_property_handler(const std::string& text)
{
    write_console_line("[propertyhandler] " + text);
}

void write_console_line(const std::string& text)
{
    static_cast<void>(std::fputs((text + '\n').c_str(), stdout)); // nobody need be listening
}

bool is_handler(const std::string& bytes) noexcept
{
    return bytes.size() >= 2;
}

} // namespace custom_actions
