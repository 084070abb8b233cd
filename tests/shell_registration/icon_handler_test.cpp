// The icon handler's actions and the New menu's in the built library, on a user hive of the tests' own.

#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "tests/support/failing_import.h"
#include "tests/support/scripted_session.h"

#include <gtest/gtest.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {
namespace {

constexpr const wchar_t* OURS = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";
constexpr const wchar_t* OURS_IN_OTHER_LETTERS = L"{931cc9dd-9e0f-4fa1-aa06-229d0372956a}";
constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr const wchar_t* BACKUP = L"sorvane_original_icon_handler";
constexpr const wchar_t* MARK = L"QuorbelTreatment";

const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring TYPES = LR"(Software\Classes\SystemFileAssociations\)";
const std::wstring ICON_SLOT = LR"(\ShellEx\IconHandler)";
const std::wstring THUMBNAIL_SLOT = LR"(\ShellEx\{e357fccd-a995-4576-b01f-234630154e96})";

// What stands in for HKEY_CLASSES_ROOT, which does not follow the sandbox.
const std::wstring CLASSES_ROOT = LR"(ClassesRoot\)";

unsigned notifications = 0;

void WINAPI notify_shell(LONG event, UINT flags, LPCVOID first, LPCVOID second)
{
    EXPECT_TRUE(event == SHCNE_ASSOCCHANGED && flags == 0 && first == nullptr && second == nullptr);
    ++notifications;
}

// The shell opens ".ini" as "ini.shell", and so on.
std::optional<HRESULT> query(ASSOCF flags, ASSOCSTR what, LPCWSTR type, LPCWSTR, LPWSTR text, DWORD* length)
{
    EXPECT_TRUE(flags == 0 && what == ASSOCSTR_PROGID);
    const std::wstring progid = std::wstring{type + 1} + L".shell";
    *length = static_cast<DWORD>(progid.size() + 1);
    if (text == nullptr) {
        return E_POINTER; // no failure here
    }
    *std::ranges::copy(progid, text).out = L'\0';
    return S_OK;
}

void plant(const std::wstring& path, const wchar_t* name, std::wstring_view text)
{
    plant_value(HKEY_CURRENT_USER, path, name, registry_text(text));
}

void plant_number(const std::wstring& path, const wchar_t* name, char number)
{
    plant_value(HKEY_CURRENT_USER, path, name, std::string{number, '\0', '\0', '\0'}, REG_DWORD);
}

std::optional<std::string> value(const std::wstring& path, const wchar_t* name = L"")
{
    return planted_value(HKEY_CURRENT_USER, path, name);
}

class IconHandler : public testing::Test {
protected:
    UINT install() { return library.call("iconhandler_add_defaults_to_registry", session.handle()); }

    UINT remove() { return library.call("iconhandler_remove_registry", session.handle()); }

    registry_sandbox user{HKEY_CURRENT_USER};
    loaded_library library;
    scripted_session session{library.module()};
    intercepted_import<"RegOpenKeyExW", decltype(RegOpenKeyExW)> opens{
        library.module(),
        [](HKEY parent, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> std::optional<LSTATUS> {
            if (parent != HKEY_CLASSES_ROOT) {
                return std::nullopt;
            }
            return RegOpenKeyExW(HKEY_CURRENT_USER, (CLASSES_ROOT + path).c_str(), options, access, key);
        }};
    intercepted_import<"AssocQueryStringW", decltype(AssocQueryStringW)> queries{library.module(), query};
    import_patch<decltype(SHChangeNotify)> notify{library.module(), "SHChangeNotify", notify_shell};
};

TEST_F(IconHandler, serves_its_types_and_their_progids_and_leaves_the_hive_as_it_was)
{
    const std::wstring choice =
        LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\.ico\UserChoice)";
    plant(choice, L"ProgId", L"ico.chosen");
    plant(CLASSES + L".ico", L"", L"ico.user");
    plant(CLASSES_ROOT + L".ico", L"", L"ico.machine");
    for (const wchar_t* name : {L"", L"*", L"App", L"appx", L"AppXabc", L"ico.open"}) {
        plant(CLASSES + LR"(.ico\OpenWithProgids)", name, L"");
    }
    std::vector<std::wstring> slots{TYPES + L".ini", TYPES + L".ico", CLASSES + L"ini.shell"};
    for (const auto* progid :
         {L"ico.shell", L"ico.chosen", L"ico.user", L"ico.machine", L"ico.open", L"App"}) {
        slots.push_back(CLASSES + progid);
    }
    for (std::wstring& slot : slots) {
        plant(slot, L"Treatment", L"somebody's");
        slot += ICON_SLOT;
    }
    plant(slots[0], L"", FOREIGN);
    plant(slots[1], L"", OURS_IN_OTHER_LETTERS);
    plant(slots[2], L"", std::wstring(5000, L'x'));
    const std::wstring longest = CLASSES + std::wstring(255, L'n');
    plant(longest, L"", L"a key itself is never deleted");
    plant(CLASSES + LR"(shared\ShellEx\Other)", L"", FOREIGN);
    plant(CLASSES + L"another" + ICON_SLOT, L"", FOREIGN);
    plant(TYPES + L".png" + THUMBNAIL_SLOT, L"", FOREIGN);
    plant_number(TYPES + L".ini", MARK, 0);
    plant_number(TYPES + L"image", MARK, 1);
    const auto before = dump_registry(HKEY_CURRENT_USER);

    {
        const failing_import<"RegCreateKeyExW", decltype(RegCreateKeyExW)> fault{
            library.module(), ERROR_ACCESS_DENIED, {.last_error = 0, .nth = 2}};
        EXPECT_EQ(install(), 1603U);
        EXPECT_EQ(
            session.messages().back().text,
            L"Custom action: iconhandler_add_defaults_to_registry: Failed to create/open registry key");
    }
    notifications = 0;
    EXPECT_EQ(install(), 0U);
    EXPECT_EQ(notifications, 1U);
    for (const std::wstring& slot : slots) {
        EXPECT_EQ(value(slot), registry_text(OURS));
    }
    plant(longest + ICON_SLOT, L"", OURS_IN_OTHER_LETTERS);
    plant(longest + THUMBNAIL_SLOT, L"", OURS);
    plant(CLASSES + L"shared" + ICON_SLOT, L"", OURS);
    plant(TYPES + L".png" + THUMBNAIL_SLOT, L"", OURS);
    plant(TYPES + L".png" + THUMBNAIL_SLOT, BACKUP, FOREIGN);
    plant(TYPES + L".png", L"Treatment", L"ours");
    plant_number(TYPES + L".png", MARK, 1);
    EXPECT_EQ(remove(), 0U);
    EXPECT_EQ(notifications, 2U);
    EXPECT_EQ(dump_registry(HKEY_CURRENT_USER), before);
}

TEST_F(IconHandler, keeps_the_first_text_that_it_replaces)
{
    const std::wstring slot = TYPES + L".ico" + ICON_SLOT;
    const std::string foreign = registry_text(FOREIGN);
    const std::string newer = registry_text(L"newer");

    struct {
        std::string replaced;
        DWORD type;
        std::string kept;
    } const cases[]{
        {foreign, REG_EXPAND_SZ, foreign},
        {foreign, REG_BINARY, newer},
        {foreign + "x", REG_SZ, newer},
        {"", REG_SZ, newer},
    };

    for (const auto& [replaced, type, kept] : cases) {
        plant_value(HKEY_CURRENT_USER, slot, L"", replaced, type);
        install();
        plant(slot, L"", L"newer");
        install();
        EXPECT_EQ(value(slot, BACKUP), kept);
        remove();
        EXPECT_EQ(value(slot), kept);
        EXPECT_EQ(value(slot, BACKUP), std::nullopt);
    }
}

TEST_F(IconHandler, puts_back_the_drive_icons_that_are_still_its_own)
{
    const std::wstring drives = LR"(Software\Classes\Applications\Explorer.exe\Drives\)";
    const std::wstring first = drives + LR"(A\DefaultIcon)";
    const std::wstring last = drives + LR"(Z\DefaultIcon)";
    const wchar_t* const applied = L"sorvane_drive_icon_applied";
    const wchar_t* const original = L"sorvane_drive_icon_original";

    struct {
        const wchar_t* icon;
        char had_original;
        const wchar_t* kept_as;
        UINT result;
        std::optional<std::string> icon_after;
    } const cases[]{
        {L"our.ico", 0, original, 0, std::nullopt},
        {L"our.ico", 1, original, 0, registry_text(L"old.ico")},
        {L"Our.ico", 1, original, 0, registry_text(L"Our.ico")}, // changed since
        {L"our.ico", 1, L"lost", 1603, registry_text(L"our.ico")},
    };

    for (const auto& [icon, had_original, kept_as, result, icon_after] : cases) {
        RegDeleteTreeW(HKEY_CURRENT_USER, drives.c_str());
        plant(first, L"", icon);
        plant(first, applied, L"our.ico");
        plant(first, kept_as, L"old.ico");
        plant_number(first, L"sorvane_drive_icon_had_original", had_original);
        plant(last, L"", L"our.ico");
        plant(last, applied, L"our.ico");
        EXPECT_EQ(remove(), result);
        EXPECT_EQ(value(first), icon_after);
        EXPECT_EQ(value(first, applied).has_value(), icon_after == registry_text(icon));
        EXPECT_EQ(value(last), std::nullopt);
    }
    EXPECT_EQ(
        session.messages().back(),
        (posted_message{
            0x01000000, L"Custom action: iconhandler_remove_registry: Failed to update registry."}));
}

TEST_F(IconHandler, leaves_the_new_menu_to_the_system)
{
    const std::wstring path = LR"(Software\Classes\Directory\Background\ShellEx\ContextMenuHandlers\New)";
    plant(path, L"", FOREIGN);
    library.call("restore_built_in_new_context_menu", session.handle());
    EXPECT_EQ(value(path), std::nullopt);
    EXPECT_EQ(
        session.messages().back().text, L"Custom action: restore_built_in_new_context_menu: Restored New");
}

} // namespace
} // namespace test_support
