#include "benchmarks/property_handler_floor.h"

#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "custom_actions/shell_registration/property_lists.h"

#include <algorithm>
#include <cstdio>

namespace benchmarks {
namespace {

using namespace custom_actions;

constexpr REGSAM KEY_READ_WRITE = KEY_READ | KEY_WRITE;

void query_elevation()
{
    HANDLE token = nullptr;
    TOKEN_ELEVATION elevation{};
    DWORD size = sizeof elevation;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    GetTokenInformation(token, TokenElevation, &elevation, size, &size);
    CloseHandle(token);
    if (elevation.TokenIsElevated == 0) { // the same line as ours
        std::fputs(
            "[propertyhandler] WARNING: not elevated - every HKLM write below will fail. "
            "Run build_all.ps1 (or the installer) as Administrator.\n",
            stdout);
    }
}

REGSAM query_view()
{
    BOOL under_wow64 = FALSE;
    IsWow64Process(GetCurrentProcess(), &under_wow64);
    return under_wow64 ? KEY_WOW64_64KEY : 0;
}

HKEY open(const std::string& path, REGSAM access)
{
    HKEY key = nullptr;
    RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key);
    return key;
}

HKEY create(const std::string& path, REGSAM access)
{
    HKEY key = nullptr;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, access, nullptr, &key, nullptr);
    return key;
}

void query(HKEY key, const char* name, DWORD size)
{
    BYTE data[4096];
    DWORD type = REG_NONE;
    RegQueryValueExA(key, name, nullptr, &type, data, &size);
}

void set(HKEY key, const char* name, std::string_view text)
{
    const auto size = static_cast<DWORD>(text.size()) + 1; // with the terminating zero
    RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.data()), size);
}

void open_and_query(const std::string& path, REGSAM access, const char* name, DWORD size)
{
    HKEY key = open(path, access);
    query(key, name, size);
    RegCloseKey(key);
}

void open_query_and_set(
    const std::string& path, REGSAM access, const char* name, DWORD size, std::string_view text)
{
    HKEY key = open(path, access);
    query(key, name, size);
    set(key, name, text);
    RegCloseKey(key);
}

void enumerate_handlers(HKEY handlers)
{
    for (DWORD index = 0;; ++index) {
        char name[256];
        DWORD length = sizeof name;
        if (RegEnumKeyExA(handlers, index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            return;
        }
        HKEY key = nullptr;
        RegOpenKeyExA(handlers, name, 0, KEY_READ, &key);
        query(key, "", 1024);
        RegCloseKey(key);
    }
}

void remove_lists(const std::string& path)
{
    HKEY key = open(path, KEY_READ_WRITE);
    for (const char* name : {"FullDetails", "PreviewDetails", "InfoTip"}) {
        query(key, name, 4096);
        RegDeleteValueA(key, name);
    }
    // The same lines on standard output as ours.
    std::fputs("  - Removed matching FullDetails.\n", stdout);
    std::fputs("  - Removed matching PreviewDetails.\n", stdout);
    std::fputs("  - Removed matching InfoTip.\n", stdout);
    DWORD subkeys = 0;
    DWORD values = 0;
    RegQueryInfoKeyW(
        key,
        nullptr,
        nullptr,
        nullptr,
        &subkeys,
        nullptr,
        nullptr,
        &values,
        nullptr,
        nullptr,
        nullptr,
        nullptr);
    RegCloseKey(key);
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, path.c_str());
}

} // namespace

property_handler_floor::property_handler_floor()
    : types_{file_types()}, types_by_name_{types_},
      infotip_{with_infotip_extra(std::string{INFOTIP_LIST}).value()}
{
    std::ranges::sort(types_by_name_, {}, &file_type::extension);

    std::string list{FULL_DETAILS_LIST};
    for (const std::string_view property : FULL_DETAILS_EXTRA_PROPERTIES) {
        longer_lists_.push_back(list = with_full_details_extra(list, property).value());
    }
    for (const std::string_view property : FULL_DETAILS_EXTRA_PROPERTIES) {
        shorter_lists_.push_back(list = without_full_details_extra(list, property).value());
    }
}

std::vector<property_handler_floor::file_type> property_handler_floor::file_types()
{
    const auto is_in = [](const auto& extensions, std::string_view extension) {
        return std::ranges::find(extensions, extension) != extensions.end();
    };
    std::vector<file_type> types;
    types.reserve(PROPERTY_HANDLER_EXTENSIONS.size());
    for (const std::string_view extension : PROPERTY_HANDLER_EXTENSIONS) {
        types.push_back(
            {.extension = std::string{extension},
             .handler_path = property_handler_path(extension),
             .lists_path = file_association_path(extension),
             .overridden = is_in(FORCE_OVERRIDE_EXTENSIONS, extension),
             .extended = is_in(EXTENDED_DETAILS_EXTENSIONS, extension)});
    }
    return types;
}

void property_handler_floor::register_on_clean_hive() const
{
    query_elevation();
    const REGSAM view = query_view();
    for (const file_type& type : types_) {
        open(type.handler_path, KEY_READ); // absent
        HKEY handler = create(type.handler_path, KEY_WRITE | view);
        set(handler, "", PROPERTY_HANDLER_CLSID);
        RegCloseKey(handler);
        open_and_query(type.handler_path, KEY_READ, "", 1024);
        HKEY lists = create(type.lists_path, KEY_WRITE);
        set(lists, "FullDetails", FULL_DETAILS_LIST);
        set(lists, "PreviewDetails", PREVIEW_DETAILS_LIST);
        set(lists, "InfoTip", INFOTIP_LIST);
        RegCloseKey(lists);
    }
    for (const file_type& type : types_) {
        if (type.extended) {
            extend_lists(type, view);
        }
    }
}

void property_handler_floor::extend_lists(const file_type& type, REGSAM view) const
{
    open_and_query(type.handler_path, KEY_READ, "", 1024);
    open_query_and_set(type.lists_path, KEY_READ_WRITE | view, "InfoTip", 2048, infotip_);
    for (const std::string& list : longer_lists_) {
        open_query_and_set(type.lists_path, KEY_READ_WRITE | view, "FullDetails", 4096, list);
    }
}

void property_handler_floor::register_again() const
{
    query_elevation();
    const REGSAM view = query_view();
    for (const file_type& type : types_) {
        open_and_query(type.handler_path, KEY_READ, "", 1024);
        if (type.overridden) {
            open_and_query(type.handler_path, KEY_READ, "", 1024);
        }
    }
    for (const file_type& type : types_) {
        if (type.extended) {
            open_and_query(type.handler_path, KEY_READ, "", 1024);
            open_and_query(type.lists_path, KEY_READ_WRITE | view, "InfoTip", 2048);
            for (std::size_t i = 0; i < longer_lists_.size(); ++i) {
                open_and_query(type.lists_path, KEY_READ_WRITE | view, "FullDetails", 4096);
            }
        }
    }
}

void property_handler_floor::remove() const
{
    HKEY handlers = open(PROPERTY_HANDLERS_KEY, KEY_READ_WRITE);
    enumerate_handlers(handlers);
    for (const file_type& type : types_by_name_) {
        shorten_lists(type);
        open_and_query(type.handler_path, KEY_READ_WRITE, ORIGINAL_HANDLER_VALUE, 1024); // absent
        RegDeleteKeyA(handlers, type.extension.c_str());
        remove_lists(type.lists_path);
    }
    RegCloseKey(handlers);
}

void property_handler_floor::shorten_lists(const file_type& type) const
{
    if (type.extended) {
        open_query_and_set(type.lists_path, KEY_READ_WRITE, "InfoTip", 2048, INFOTIP_LIST);
        for (const std::string& list : shorter_lists_) {
            open_query_and_set(type.lists_path, KEY_READ_WRITE, "FullDetails", 4096, list);
        }
        return;
    }
    open_and_query(type.lists_path, KEY_READ_WRITE, "InfoTip", 2048);
    for (std::size_t i = 0; i < shorter_lists_.size(); ++i) {
        open_and_query(type.lists_path, KEY_READ_WRITE, "FullDetails", 4096);
    }
}

} // namespace benchmarks
