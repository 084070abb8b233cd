#include "tests/support/furnished_registry.h"

#include "support/registry_sandbox.h"

#include <sstream>
#include <string>
#include <vector>

namespace test_support {
namespace {

using namespace std::string_literals;

struct folder {
    HKEY hive;
    std::wstring path;
};

struct value {
    const wchar_t* name;
    std::wstring text; // a number is the character that has the same bytes
    DWORD type = REG_SZ;
};

// Every value in the key FOLDER\KEY\SUBKEY of each KEY.
struct row {
    const folder& in;
    std::wstring keys; // with spaces between them
    const wchar_t* subkey;
    std::vector<value> values;
};

const folder HANDLERS{
    HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\)"};
const folder LISTS{HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Classes\SystemFileAssociations\)"};
const folder CLASSES{HKEY_CURRENT_USER, LR"(Software\Classes\)"};
const folder TYPES{HKEY_CURRENT_USER, LR"(Software\Classes\SystemFileAssociations\)"};
const folder DRIVES{HKEY_CURRENT_USER, LR"(Software\Classes\Applications\Explorer.exe\Drives\)"};
const folder FILES{HKEY_CURRENT_USER, LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\)"};
constexpr const wchar_t* ICONS = LR"(\ShellEx\IconHandler)";
constexpr const wchar_t* NEW_MENU = LR"(\Background\ShellEx\ContextMenuHandlers\New)";
constexpr const wchar_t* THUMBNAILS = LR"(\ShellEx\{e357fccd-a995-4576-b01f-234630154e96})";
constexpr const wchar_t* OUR_HANDLER = L"{73A6EEEE-36B5-4536-A731-8F92EF883087}";
constexpr const wchar_t* NOT_OUR_HANDLER = L"{73a6eeee-36b5-4536-a731-8f92ef883087}"; // case counts
constexpr const wchar_t* OUR_PREVIEW =
    L"prop:System.ItemType;System.Comment;System.Keywords;System.Rating;System.Size";
constexpr const wchar_t* OUR_ICONS = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";
constexpr const wchar_t* ALSO_OUR_ICONS =
    L"{931cc9dd-9e0f-4fa1-aa06-229d0372956a}"; // in any case, once registered
constexpr const wchar_t* NEWER = L"{newer than the backup}";
constexpr const wchar_t* HANDLER_BACKUP = L"OriginalPropertyHandler";
constexpr const wchar_t* ICONS_BACKUP = L"sorvane_original_icon_handler";
constexpr const wchar_t* DRIVE_BACKUP = L"sorvane_drive_icon_original";
constexpr const wchar_t* DRIVE_ICON = L"sorvane_drive_icon_applied";
constexpr const wchar_t* HAD_ICON = L"sorvane_drive_icon_had_original";
constexpr const wchar_t* MARKER = L"QuorbelTreatment";
constexpr const wchar_t* MOST_TYPES = // few are left to register, which saves time
    L".aspx .avi .bat .c .cmd .config .cpp .cs .csv .d64 .dll .doc .docx .gfie .h .hpp .htm .html .ini .json "
    L".jxl .lnk .log .lnx .master .md .mov .mp4 .msi .pdf .pfx .png .prg .ppt .pptx .ps1 .rar .reg .rtf .sid "
    L".sln .svg .tmp .txt .wav .webmanifest .wma .xls .xlsx .xml";
const std::wstring FOREIGN = L"{11111111-2222-3333-4444-555555555555}"; // and any text behind it
const std::wstring CHOSEN(255, L'c');                                   // no key has a longer name

const std::vector<row> OTHERS{
    {HANDLERS, L".arw", L"", {{L"", FOREIGN + L'\0' + std::wstring(1500, L'x') + L'\0'}}},
    {HANDLERS, L".bmp .gif .heic", L"", {{L"", FOREIGN}}},
    {HANDLERS, MOST_TYPES, L"", {{L"", NOT_OUR_HANDLER}}},
    {LISTS, L".arw .jpeg", L"", {{L"InfoTip", L"prop:A"}}},
    {LISTS, L".arw", L"", {{L"FullDetails", L"prop:System.PropGroup.Description;My.Own"}}},
    {FILES, L".ico", LR"(\UserChoice)", {{L"ProgId", CHOSEN}}},
    {CLASSES, L".ico", L"", {{L"", L"user's"}}},
    {CLASSES, L".ico", LR"(\OpenWithProgids)", {{L"", L""}, {L"*", L""}, {L"App", L""}, {L"appX1", L""}}},
    {CLASSES, L"ini", ICONS, {{L"", ALSO_OUR_ICONS}}},
    {CLASSES, L"ico App user's machine's another " + CHOSEN, ICONS, {{L"", FOREIGN}}},
    {CLASSES, L"shared", LR"(\ShellEx\Other)", {{L"", FOREIGN}}},
    {TYPES, L".ini", ICONS, {{L"", FOREIGN + std::wstring(5000, L'x')}}},
    {TYPES, L".ini", L"", {{L"Treatment", L"theirs"}, {MARKER, L"\0"s, REG_DWORD}}},
    {TYPES, L".ico", L"", {{L"Other", L"theirs"}}},
    {TYPES, L".png", THUMBNAILS, {{L"", FOREIGN}}},
    {DRIVES, L"A", L"\\DefaultIcon", {{L"", FOREIGN}}},
    {DRIVES, L"B", L"\\DefaultIcon", {{L"", L"Changed.ico"}, {DRIVE_ICON, L"changed.ico"}}},
    {DRIVES, L"Z", L"\\DefaultIcon", {{L"Other", L"theirs"}}},
    {CLASSES, L"Directory", NEW_MENU, {{L"Other", L"theirs"}}},
};

// Where registration does not do its part, NEWER and the like stay.
const std::vector<row> OURS{
    {HANDLERS, L".jpeg .unknown", L"", {{L"", OUR_HANDLER}}},
    {HANDLERS, L".gif", L"", {{L"", OUR_HANDLER}, {HANDLER_BACKUP, FOREIGN}}},
    {HANDLERS, L".heic", L"", {{L"", NOT_OUR_HANDLER}, {HANDLER_BACKUP, FOREIGN}}},
    {HANDLERS, L".bmp", L"", {{L"", NEWER}, {HANDLER_BACKUP, FOREIGN}}},
    {HANDLERS, L".tif", L"", {{L"", NEWER}, {HANDLER_BACKUP, L"", REG_NONE}}}, // a backup all the same
    {HANDLERS, L".webp", L"", {{L"", L"\0x"s}}}, // an empty text, but not an empty value
    {HANDLERS, L".zip", L"", {{L"", L""}}},      // an empty value is no handler
    {LISTS, L".jpeg", L"", {{L"PreviewDetails", OUR_PREVIEW}}},
    {CLASSES, L"ico App user's machine's " + CHOSEN, ICONS, {{L"", NEWER}, {ICONS_BACKUP, FOREIGN}}},
    {CLASSES, L"shared", ICONS, {{L"", ALSO_OUR_ICONS}, {ICONS_BACKUP, L"no text", REG_BINARY}}},
    {CLASSES, L"shared", THUMBNAILS, {{L"", OUR_ICONS}}},
    {TYPES, L".ini", ICONS, {{ICONS_BACKUP, L"no text", REG_BINARY}}},
    {TYPES, L".ico", ICONS, {{L"", OUR_ICONS}}},
    {TYPES, L".png", THUMBNAILS, {{L"", OUR_ICONS}, {ICONS_BACKUP, FOREIGN}}},
    {TYPES, L".png", L"", {{L"Treatment", L"ours"}, {MARKER, L"\2", REG_DWORD}}},
    {DRIVES, L"A Z", L"\\DefaultIcon", {{L"", L"ours.ico"}, {DRIVE_ICON, L"ours.ico"}}},
    {DRIVES, L"A", L"\\DefaultIcon", {{HAD_ICON, L"\1", REG_BINARY}, {DRIVE_BACKUP, FOREIGN, REG_EXPAND_SZ}}},
    {DRIVES, L"Z", L"\\DefaultIcon", {{HAD_ICON, L"\2", REG_DWORD}}},
    {CLASSES, L"Directory", NEW_MENU, {{L"", L"ours"}}},
};

} // namespace

void plant(origin from, HKEY hive)
{
    for (const auto& [in, keys, subkey, values] : from == origin::others ? OTHERS : OURS) {
        std::wistringstream words{in.hive == hive ? keys : L""};
        for (std::wstring key; words >> key;) {
            for (const auto& [name, text, type] : values) {
                plant_value(hive, in.path + key + subkey, name, registry_text(text), type);
            }
        }
    }
}

} // namespace test_support
