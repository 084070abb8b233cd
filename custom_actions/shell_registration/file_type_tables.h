#pragma once

#include <algorithm>
#include <array>
#include <string_view>

// The file types that the property handler serves, and what is written under each. Extensions are lower-case
// with their dot and stand in registry paths as they are.
namespace custom_actions {

// Compared byte for byte: the same class in another case is not ours.
inline constexpr std::string_view PROPERTY_HANDLER_CLSID = "{73A6EEEE-36B5-4536-A731-8F92EF883087}";

// In the order of registration, which is deliberately not quite alphabetical.
inline constexpr std::array<std::string_view, 63> SHARED_EXTENSIONS{
    ".arw",  ".asm",  ".aspx",        ".avi",  ".bat",  ".bmp",    ".c",    ".cmd",  ".config",
    ".cpp",  ".cs",   ".csv",         ".d64",  ".dll",  ".doc",    ".docx", ".gif",  ".gfie",
    ".h",    ".heic", ".hpp",         ".htm",  ".html", ".ico",    ".ini",  ".jpeg", ".jpg",
    ".json", ".jxl",  ".lnk",         ".log",  ".lnx",  ".master", ".md",   ".mov",  ".mp4",
    ".msi",  ".pdf",  ".pfx",         ".png",  ".prg",  ".ppt",    ".pptx", ".ps1",  ".rar",
    ".reg",  ".rtf",  ".sid",         ".sln",  ".svg",  ".tif",    ".tiff", ".tmp",  ".txt",
    ".url",  ".wav",  ".webmanifest", ".webp", ".wma",  ".xls",    ".xlsx", ".xml",  ".zip",
};

// The extensions that get the property handler: the shared ones and one more.
inline constexpr auto PROPERTY_HANDLER_EXTENSIONS = [] {
    std::array<std::string_view, SHARED_EXTENSIONS.size() + 1> extensions{};
    *std::ranges::copy(SHARED_EXTENSIONS, extensions.begin()).out = ".mp3";
    return extensions;
}();

// The types for which somebody else's handler is replaced, and kept in a backup.
inline constexpr std::array<std::string_view, 11> FORCE_OVERRIDE_EXTENSIONS{
    ".arw", ".bmp", ".gif", ".heic", ".ico", ".jpeg", ".jpg", ".tif", ".tiff", ".url", ".webp"};

// The images whose lists get the place and the address as well.
inline constexpr std::array<std::string_view, 7> EXTENDED_DETAILS_EXTENSIONS{
    ".arw", ".heic", ".jpeg", ".jpg", ".tif", ".tiff", ".webp"};

// Kept with the others; no action reads it.
inline constexpr std::array<std::string_view, 11> MEDIA_EXTENSIONS{
    ".arw", ".heic", ".jpeg", ".jpg", ".jxl", ".mp3", ".mp4", ".tif", ".tiff", ".wma", ".wmv"};

inline constexpr std::string_view FULL_DETAILS_LIST =
    "prop:System.PropGroup.Description;System.Rating;System.Keywords;System.Comment;"
    "System.PropGroup.FileSystem;System.ItemNameDisplay;System.ItemType;System.ItemFolderPathDisplay;"
    "System.DateCreated;System.DateModified;System.Size;System.FileAttributes;"
    "System.OfflineAvailability;System.OfflineStatus;System.SharedWith;System.FileOwner;System.ComputerName";

// The same five properties, deliberately in two orders.
inline constexpr std::string_view PREVIEW_DETAILS_LIST =
    "prop:System.ItemType;System.Comment;System.Keywords;System.Rating;System.Size";
inline constexpr std::string_view INFOTIP_LIST =
    "prop:System.ItemType;System.Keywords;System.Rating;System.Comment;System.Size";

struct details_list {
    const char* value; // its name in the registry
    std::string_view text;
};

// The lists as they are written under each type, in this order.
inline constexpr std::array<details_list, 3> DETAILS_LISTS{{
    {.value = "FullDetails", .text = FULL_DETAILS_LIST},
    {.value = "PreviewDetails", .text = PREVIEW_DETAILS_LIST},
    {.value = "InfoTip", .text = INFOTIP_LIST},
}};

inline constexpr std::string_view INFOTIP_EXTRA_PROPERTY = "System.Calendar.Location";

inline constexpr std::array<std::string_view, 4> FULL_DETAILS_EXTRA_PROPERTIES{
    "System.Contact.PrimaryAddressCountry",
    "System.Contact.PrimaryAddressState",
    "System.Contact.PrimaryAddressCity",
    INFOTIP_EXTRA_PROPERTY,
};

// Where the extra properties go in "FullDetails", and what stands between two properties.
inline constexpr std::string_view FULL_DETAILS_ANCHOR = "System.PropGroup.Description;";
inline constexpr std::string_view PROPERTY_SEPARATOR = ";";

// Registry keys of the machine; the last two are followed by an extension.
inline constexpr const char* PROPERTY_HANDLERS_KEY =
    R"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
inline constexpr const char* PROPERTY_HANDLER_PREFIX =
    R"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\)";
inline constexpr const char* FILE_ASSOCIATION_PREFIX = R"(SOFTWARE\Classes\SystemFileAssociations\)";

// The value beside a handler that keeps the one that it replaced.
inline constexpr const char* ORIGINAL_HANDLER_VALUE = "OriginalPropertyHandler";

} // namespace custom_actions
