// Registration and removal of the icon handler and the repairs beside it, on a user hive of the tests' own.

#include "custom_actions/common/windows_error.h"
#include "custom_actions/shell_registration/drive_icons.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/shell_registration/new_menu.h"
#include "tests/support/failing_import.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace custom_actions {
namespace {

using test_support::dump_registry;
using test_support::import_patch;
using test_support::intercepted_import;
using test_support::planted_value;
using test_support::posted_message;
using test_support::registry_text;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const wchar_t* OURS = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";
constexpr const wchar_t* OURS_IN_OTHER_LETTERS = L"{931cc9dd-9e0f-4fa1-aa06-229d0372956a}";
constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* BACKUP = L"sorvane_original_icon_handler";
constexpr UINT LINE = 0x04000000;
constexpr UINT ERROR_BOX = 0x01000000;

const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring ASSOCIATIONS = LR"(Software\Classes\SystemFileAssociations\)";
const std::wstring ICON_SLOT = LR"(\ShellEx\IconHandler)";
const std::wstring THUMBNAIL_SLOT = LR"(\ShellEx\{e357fccd-a995-4576-b01f-234630154e96})";
const std::wstring DRIVES = LR"(Software\Classes\Applications\Explorer.exe\Drives\)";

// What stands in for HKEY_CLASSES_ROOT, which does not follow the sandbox.
constexpr const wchar_t* CLASSES_ROOT = L"ClassesRoot";

struct registry_fault {
    std::wstring path_end;
    REGSAM access;
    LSTATUS code;
};

std::optional<registry_fault> planned_fault;
std::vector<REGSAM> classes_root_accesses;
std::wstring association; // what the shell says opens the type
HRESULT size_answer = S_FALSE;
HRESULT text_answer = S_OK;
std::vector<LONG> notifications;

std::optional<LSTATUS> fault_of(std::wstring_view path, REGSAM access)
{
    const bool fails =
        planned_fault && path.ends_with(planned_fault->path_end) && access == planned_fault->access;
    return fails ? std::optional{planned_fault->code} : std::nullopt;
}

HRESULT WINAPI query_association(ASSOCF flags, ASSOCSTR what, LPCWSTR, LPCWSTR, LPWSTR text, DWORD* length)
{
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(what, ASSOCSTR_PROGID);
    if (association.empty()) {
        return E_NOTIMPL;
    }
    *length = static_cast<DWORD>(association.size() + 1);
    if (text == nullptr) {
        return size_answer;
    }
    *std::ranges::copy(association, text).out = L'\0';
    return text_answer;
}

void WINAPI notify_shell(LONG event, UINT flags, LPCVOID first, LPCVOID second)
{
    EXPECT_EQ(flags, 0U);
    EXPECT_TRUE(first == nullptr && second == nullptr);
    notifications.push_back(event);
}

std::optional<LSTATUS> answer_open(HKEY parent, LPCWSTR path, DWORD options, REGSAM access, PHKEY key)
{
    if (parent != HKEY_CLASSES_ROOT) {
        return fault_of(path, access);
    }
    classes_root_accesses.push_back(access);
    const std::wstring redirected = std::wstring{CLASSES_ROOT} + L'\\' + path;
    return RegOpenKeyExW(HKEY_CURRENT_USER, redirected.c_str(), options, access, key);
}

class IconHandler : public testing::Test {
protected:
    IconHandler()
    {
        association.clear();
        size_answer = S_FALSE;
        text_answer = S_OK;
        notifications.clear();
        classes_root_accesses.clear();
        plant(CLASSES + LR"(ico.first\DefaultIcon)", L"", L"first.ico");
        plant(ASSOCIATIONS + L".ini", L"somebody's", L"value");
        plant(ASSOCIATIONS + L".ico", L"somebody's", L"value");
    }

    ~IconHandler() override { planned_fault.reset(); }

    static void plant(const std::wstring& path, const wchar_t* name, std::wstring_view text)
    {
        plant(path, name, registry_text(text), REG_SZ);
    }

    static void plant(const std::wstring& path, const wchar_t* name, std::string_view bytes, DWORD type)
    {
        test_support::plant_value(HKEY_CURRENT_USER, path, name, bytes, type);
    }

    static void plant_number(const std::wstring& path, const wchar_t* name, char number)
    {
        plant(path, name, std::string{number, '\0', '\0', '\0'}, REG_DWORD);
    }

    static std::optional<std::string> value(const std::wstring& path, const wchar_t* name = L"")
    {
        return planted_value(HKEY_CURRENT_USER, path, name);
    }

    static bool exists(const std::wstring& path)
    {
        registry_key_handle key;
        return RegOpenKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
    }

    static std::vector<std::string> hive() { return dump_registry(HKEY_CURRENT_USER); }

    void install() { register_icon_handler(session.handle()); }

    UINT remove() { return remove_icon_handler(session.handle()); }

    test_support::registry_sandbox user{HKEY_CURRENT_USER};
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
    HMODULE program = GetModuleHandleW(nullptr);
    intercepted_import<"RegOpenKeyExW", decltype(RegOpenKeyExW)> opens{program, answer_open};
    intercepted_import<"RegCreateKeyExW", decltype(RegCreateKeyExW)> creates{
        program,
        [](HKEY parent,
           LPCWSTR path,
           DWORD,
           LPWSTR,
           DWORD,
           REGSAM access,
           LPSECURITY_ATTRIBUTES,
           PHKEY,
           LPDWORD) {
            EXPECT_EQ(parent, HKEY_CURRENT_USER) << "nothing else is written";
            return fault_of(path, access);
        }};
    import_patch<decltype(AssocQueryStringW)> query{program, "AssocQueryStringW", query_association};
    import_patch<decltype(SHChangeNotify)> notify{program, "SHChangeNotify", notify_shell};
};

const posted_message REMOVED{
    LINE, L"Custom action: iconhandler_remove_registry: Registry updated successfully."};
const posted_message NOT_REMOVED{
    ERROR_BOX, L"Custom action: iconhandler_remove_registry: Failed to update registry."};

TEST_F(IconHandler, serves_the_progids_of_every_source_once)
{
    association = L"ico.shell";
    plant(
        LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\.ico\UserChoice)",
        L"ProgId",
        L"ico.chosen");
    plant(CLASSES + L".ico", L"", L"ICO.SHELL");
    plant(std::wstring{CLASSES_ROOT} + LR"(\.ico)", L"", L"ico.machine");
    for (const wchar_t* name : {L"ico.open", L"AppXabc", L"appx", L"*", L"Ico.Chosen", L"App", L""}) {
        plant(CLASSES + LR"(.ico\OpenWithProgids)", name, L"");
    }
    const auto progids = collect_progids(L".ico");
    EXPECT_THAT(
        progids,
        testing::UnorderedElementsAre(L"ico.shell", L"ico.chosen", L"ico.machine", L"ico.open", L"App"));
    EXPECT_EQ(progids.at(0), L"ico.shell");
    EXPECT_EQ(progids.at(1), L"ico.chosen");
    EXPECT_EQ(progids.at(2), L"ico.machine") << "then the rest, in the registry's order";
    EXPECT_THAT(classes_root_accesses, ElementsAre(KEY_READ));

    size_answer = E_POINTER;
    EXPECT_EQ(collect_progids(L".ico").front(), L"ico.shell") << "this answer counts as a success";
    text_answer = E_FAIL;
    EXPECT_EQ(collect_progids(L".ico").front(), L"ico.chosen");
}

TEST_F(IconHandler, takes_no_progid_from_what_is_no_text)
{
    plant(CLASSES + L".ini", L"", registry_text(L"ini.odd") + "x", REG_SZ);
    plant(
        LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\.ini\UserChoice)",
        L"ProgId",
        registry_text(L"ini.bytes"),
        REG_BINARY);
    plant(std::wstring{CLASSES_ROOT} + LR"(\.ini)", L"", registry_text(std::wstring(8192, L'x')), REG_SZ);
    EXPECT_THAT(collect_progids(L".ini"), IsEmpty());
    plant(CLASSES + L".ini", L"", registry_text(L"ini.unended").substr(0, 22), REG_SZ);
    EXPECT_THAT(collect_progids(L".ini"), IsEmpty());
    plant(CLASSES + L".ini", L"", registry_text(L"ini.expanded"), REG_EXPAND_SZ);
    EXPECT_THAT(collect_progids(L".ini"), ElementsAre(L"ini.expanded"));
}

TEST_F(IconHandler, is_registered_for_both_types_and_their_progids)
{
    association = L"ico.first";
    install();
    for (const std::wstring& owner :
         {ASSOCIATIONS + L".ini", ASSOCIATIONS + L".ico", CLASSES + L"ico.first"}) {
        EXPECT_EQ(value(owner + ICON_SLOT), registry_text(OURS));
    }
    EXPECT_THAT(notifications, ElementsAre(SHCNE_ASSOCCHANGED));
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            posted_message{LINE, L"Custom action: iconhandler_add_defaults_to_registry: Starting..."},
            posted_message{
                LINE,
                L"Custom action: iconhandler_add_defaults_to_registry: Registry updated successfully."}));
}

TEST_F(IconHandler, breaks_off_where_a_key_cannot_be_made)
{
    planned_fault = {L".ico" + ICON_SLOT, 0x2001F, ERROR_ACCESS_DENIED};
    try {
        install();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const windows_error& error) {
        EXPECT_STREQ(error.what(), "Failed to create/open registry key");
        EXPECT_EQ(error.code(), DWORD{ERROR_ACCESS_DENIED});
    }
    EXPECT_TRUE(exists(ASSOCIATIONS + L".ini" + ICON_SLOT));
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(IconHandler, leaves_the_hive_as_it_was)
{
    association = L"ico.first";
    plant(ASSOCIATIONS + L".ico" + ICON_SLOT, L"", FOREIGN);
    plant(CLASSES + L"ico.first" + ICON_SLOT, L"", std::wstring(5000, L'x'));
    plant(ASSOCIATIONS + L".ini" + ICON_SLOT, L"other", L"value of somebody's handler");
    plant(CLASSES + std::wstring(255, L'n') + ICON_SLOT, L"", FOREIGN);
    plant(CLASSES + L"third" + ICON_SLOT, L"", registry_text(OURS) + "x", REG_SZ);
    plant(CLASSES + L"fourth" + ICON_SLOT, L"", registry_text(OURS), REG_BINARY);
    plant(ASSOCIATIONS + L".ini" + ICON_SLOT, L"", FOREIGN);
    const auto before = hive();
    install();
    EXPECT_EQ(value(ASSOCIATIONS + L".ico" + ICON_SLOT, BACKUP), registry_text(FOREIGN));
    const auto after_first = hive();
    install();
    EXPECT_EQ(hive(), after_first) << "the first handler is the one that is kept";
    EXPECT_EQ(remove(), 0U);
    EXPECT_EQ(hive(), before);
    EXPECT_EQ(session.messages().back(), REMOVED);
}

TEST_F(IconHandler, keeps_what_it_replaces_unless_it_is_no_text_or_its_own)
{
    const std::wstring path = CLASSES + L"some" + ICON_SLOT;

    struct {
        const char* what;
        std::string bytes;
        DWORD type;
        std::optional<std::string> backup;
    } const cases[]{
        {"its own class", registry_text(OURS), REG_SZ, std::nullopt},
        {"its own in other letters",
         registry_text(OURS_IN_OTHER_LETTERS),
         REG_SZ,
         registry_text(OURS_IN_OTHER_LETTERS)},
        {"a text to be expanded", registry_text(L"%x%"), REG_EXPAND_SZ, registry_text(L"%x%")},
        {"an empty text", registry_text(L""), REG_SZ, std::nullopt},
        {"no data", "", REG_SZ, std::nullopt},
        {"bytes", registry_text(FOREIGN), REG_BINARY, std::nullopt},
        {"half a character", registry_text(FOREIGN) + "x", REG_SZ, std::nullopt},
    };

    for (const auto& [what, bytes, type, backup] : cases) {
        RegDeleteTreeW(HKEY_CURRENT_USER, (CLASSES + L"some").c_str());
        plant(path, L"", bytes, type);
        set_handler_with_backup(path, L"", OURS, BACKUP);
        EXPECT_EQ(value(path), registry_text(OURS)) << what;
        EXPECT_EQ(value(path, BACKUP), backup) << what;
    }
    plant(path, L"", FOREIGN);
    plant(path, BACKUP, L"earlier");
    set_handler_with_backup(path, L"", OURS, BACKUP);
    EXPECT_EQ(value(path, BACKUP), registry_text(L"earlier"));
}

TEST_F(IconHandler, is_removed_from_both_slots_of_every_key)
{
    plant(CLASSES + L"alone" + ICON_SLOT, L"", OURS_IN_OTHER_LETTERS);
    plant(CLASSES + L"alone" + THUMBNAIL_SLOT, L"", OURS);
    plant(ASSOCIATIONS + L".png" + THUMBNAIL_SLOT, L"", OURS);
    plant(ASSOCIATIONS + L".png" + THUMBNAIL_SLOT, BACKUP, FOREIGN);
    plant(CLASSES + L"shared" + ICON_SLOT, L"", OURS);
    plant(CLASSES + LR"(shared\ShellEx\Other)", L"", FOREIGN);
    EXPECT_EQ(remove(), 0U);
    EXPECT_FALSE(exists(CLASSES + LR"(alone\ShellEx)"));
    EXPECT_TRUE(exists(CLASSES + L"alone")) << "the key itself is never deleted";
    EXPECT_EQ(value(ASSOCIATIONS + L".png" + THUMBNAIL_SLOT), registry_text(FOREIGN));
    EXPECT_FALSE(value(ASSOCIATIONS + L".png" + THUMBNAIL_SLOT, BACKUP));
    EXPECT_FALSE(exists(CLASSES + L"shared" + ICON_SLOT));
    EXPECT_TRUE(exists(CLASSES + LR"(shared\ShellEx\Other)"));
    EXPECT_THAT(notifications, ElementsAre(SHCNE_ASSOCCHANGED));
}

TEST_F(IconHandler, passes_over_keys_that_vanish_or_refuse)
{
    for (const wchar_t* owner : {L"a", L"b", L"c"}) {
        plant(CLASSES + owner + ICON_SLOT, L"", OURS);
    }
    for (const LSTATUS code : {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND, ERROR_KEY_DELETED}) {
        for (const auto& [path_end, access] :
             {std::pair{LR"(b\ShellEx\IconHandler)", REGSAM{0x2001F}},
              std::pair{LR"(b\ShellEx)", REGSAM{0x20007}}}) {
            planned_fault = {path_end, access, code};
            EXPECT_EQ(remove(), 0U);
            EXPECT_FALSE(exists(CLASSES + LR"(a\ShellEx)"));
            EXPECT_EQ(value(CLASSES + L"b" + ICON_SLOT), registry_text(OURS));
            EXPECT_FALSE(exists(CLASSES + LR"(c\ShellEx)"));
        }
    }
    planned_fault = {LR"(Software\Classes)", KEY_READ, ERROR_ACCESS_DENIED};
    EXPECT_EQ(remove(), 0U);
}

TEST_F(IconHandler, clears_the_treatment_that_carries_the_mark)
{
    plant(ASSOCIATIONS + L".a", L"Treatment", L"ours");
    plant_number(ASSOCIATIONS + L".a", L"QuorbelTreatment", 1);
    plant(ASSOCIATIONS + L".b", L"Treatment", L"somebody's");
    plant(ASSOCIATIONS + L".c", L"Treatment", L"somebody's");
    plant_number(ASSOCIATIONS + L".c", L"QuorbelTreatment", 0);
    plant(ASSOCIATIONS + L".d", L"Treatment", L"somebody's");
    plant(ASSOCIATIONS + L".d", L"QuorbelTreatment", L"no number");
    plant(ASSOCIATIONS + L"image", L"Treatment", L"not a type");
    plant_number(ASSOCIATIONS + L"image", L"QuorbelTreatment", 1);
    EXPECT_EQ(remove(), 0U);
    EXPECT_FALSE(value(ASSOCIATIONS + L".a", L"Treatment"));
    EXPECT_FALSE(value(ASSOCIATIONS + L".a", L"QuorbelTreatment"));
    for (const wchar_t* kept : {L".b", L".c", L".d", L"image"}) {
        EXPECT_TRUE(value(ASSOCIATIONS + kept, L"Treatment"));
    }
}

struct drive {
    const char* what;
    std::optional<std::wstring> icon;
    std::optional<std::wstring> applied;
    std::optional<char> had_original;
    std::optional<std::wstring> original;
    bool restored;
    std::optional<std::wstring> icon_after;
    bool notes_after;
};

TEST_F(IconHandler, restores_the_drive_icons_that_are_still_its_own)
{
    EXPECT_TRUE(restore_drive_icons()) << "no drives at all";
    EXPECT_FALSE(exists(DRIVES));
    const std::wstring endless(5000, L'x');
    const drive drives[]{
        {"had none", L"our.ico", L"our.ico", std::nullopt, std::nullopt, true, std::nullopt, false},
        {"had another", L"our.ico", L"our.ico", '\1', L"old.ico", true, L"old.ico", false},
        {"had none, says 2", L"our.ico", L"our.ico", '\2', L"old.ico", true, std::nullopt, false},
        {"changed since", L"new.ico", L"our.ico", '\1', L"old.ico", true, L"new.ico", true},
        {"changed in one letter", L"Our.ico", L"our.ico", '\1', L"old.ico", true, L"Our.ico", true},
        {"too long to read", endless, endless, '\0', std::nullopt, true, endless, true},
        {"lost the old one", L"our.ico", L"our.ico", '\1', std::nullopt, false, L"our.ico", true},
        {"deleted since", std::nullopt, L"our.ico", '\0', std::nullopt, true, std::nullopt, true},
    };
    for (const drive& tested : drives) {
        const std::wstring path = DRIVES + LR"(Q\DefaultIcon)";
        RegDeleteTreeW(HKEY_CURRENT_USER, DRIVES.c_str());
        plant(DRIVES + LR"(Z\DefaultIcon)", L"", L"our.ico");
        plant(DRIVES + LR"(Z\DefaultIcon)", L"sorvane_drive_icon_applied", L"our.ico");
        if (tested.icon) {
            plant(path, L"", *tested.icon);
        }
        plant(path, L"sorvane_drive_icon_applied", *tested.applied);
        if (tested.had_original) {
            plant_number(path, L"sorvane_drive_icon_had_original", *tested.had_original);
        }
        if (tested.original) {
            plant(path, L"sorvane_drive_icon_original", *tested.original);
        }
        EXPECT_EQ(remove(), tested.restored ? 0U : 1603U) << tested.what;
        EXPECT_EQ(session.messages().back(), tested.restored ? REMOVED : NOT_REMOVED) << tested.what;
        EXPECT_EQ(
            value(path), tested.icon_after ? std::optional{registry_text(*tested.icon_after)} : std::nullopt)
            << tested.what;
        EXPECT_EQ(value(path, L"sorvane_drive_icon_applied").has_value(), tested.notes_after) << tested.what;
        EXPECT_FALSE(value(DRIVES + LR"(Z\DefaultIcon)")) << "the other letters go on";
        EXPECT_TRUE(exists(path));
    }
    planned_fault = {LR"(Q\DefaultIcon)", 0x2001F, ERROR_ACCESS_DENIED};
    EXPECT_FALSE(restore_drive_icons());
}

TEST_F(IconHandler, restores_the_new_menu_just_in_case)
{
    const std::wstring path = LR"(Software\Classes\Directory\Background\ShellEx\ContextMenuHandlers\New)";
    restore_new_menu(session.handle());
    plant(path, L"other", L"stays");
    restore_new_menu(session.handle());
    plant(path, L"", FOREIGN);
    restore_new_menu(session.handle());
    EXPECT_FALSE(value(path));
    EXPECT_TRUE(value(path, L"other"));
    std::vector<std::wstring> ends;
    for (const auto& message : session.messages()) {
        EXPECT_EQ(message.type, LINE);
        ends.push_back(message.text.substr(
            std::wstring_view{L"Custom action: restore_built_in_new_context_menu: "}.size()));
    }
    const std::wstring start = L"Restoring built in New (just in case)...";
    EXPECT_THAT(ends, ElementsAre(start, L"completed", start, L"completed", start, L"Restored New"));
}

} // namespace
} // namespace custom_actions
