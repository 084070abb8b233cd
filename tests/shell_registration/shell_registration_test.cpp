// Shell registration: registered and removed again, in sandboxed hives.

#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/shell_registration/new_menu.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "support/registry_sandbox.h"
#include "tests/support/failing_import.h"
#include "tests/support/test_session.h"

#include <gtest/gtest.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {
namespace {

constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring TYPES = LR"(Software\Classes\SystemFileAssociations\)";

// REG_DWORD values as texts: one character and the terminating zero have the same four bytes.
const std::wstring ZERO(1, L'\0');
const std::wstring ONE(1, L'\1');

class ShellRegistration : public testing::Test {
protected:
    explicit ShellRegistration(HKEY hive_of) : root{hive_of} {}

    void
    plant(const std::wstring& path, const wchar_t* name, std::wstring_view text, DWORD type = REG_SZ) const
    {
        plant_value(root, path, name, registry_text(text), type);
    }

    [[nodiscard]] bool has(const std::wstring& path, const wchar_t* name, std::wstring_view text) const
    {
        return planted_value(root, path, name) == registry_text(text);
    }

    HKEY root;
    HMODULE program = GetModuleHandleW(nullptr);
    registry_sandbox classes_root{HKEY_CLASSES_ROOT}; // it does not follow HKEY_CURRENT_USER
    registry_sandbox hive{root};
    test_session session{program};
    const custom_actions::action_log log{session.handle(), L"tested"};
};

class PropertyHandler : public ShellRegistration {
protected:
    static constexpr const wchar_t* OURS = L"{73A6EEEE-36B5-4536-A731-8F92EF883087}";
    static constexpr const wchar_t* OURS_IN_LOWER_CASE = L"{73a6eeee-36b5-4536-a731-8f92ef883087}";

    PropertyHandler() : ShellRegistration{HKEY_LOCAL_MACHINE} {}

    UINT install() { return run(custom_actions::register_property_handler); }

    UINT remove() { return run(custom_actions::remove_property_handler); }

    UINT run(UINT (*action)(const custom_actions::action_log&))
    {
        testing::internal::CaptureStdout();
        const UINT code = action(log);
        std::fflush(stdout);
        output = testing::internal::GetCapturedStdout();
        return code;
    }

    const std::wstring handlers =
        LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\)";
    std::string output; // of the last action
};

TEST_F(PropertyHandler, is_removed_with_its_lists_and_keeps_what_others_and_the_user_wrote)
{
    const std::wstring list = L"prop:System.PropGroup.Description;My.Own";
    const std::wstring address =
        L"System.Calendar.Location;System.Contact.PrimaryAddressCity;System.Contact.PrimaryAddressState;"
        L"System.Contact.PrimaryAddressCountry;";
    plant(handlers + L".arw", L"", FOREIGN);
    plant(handlers + L".heic", L"", OURS_IN_LOWER_CASE);
    plant(handlers + L".jpeg", L"", std::wstring(1500, L'x'));
    plant(handlers + L".xyz", L"", OURS_IN_LOWER_CASE);
    plant(TYPES + L".arw", L"InfoTip", list);
    plant(TYPES + L".arw", L"FullDetails", list);
    plant(TYPES + L".jpeg", L"FullDetails", L"prop:My.Own");
    plant(TYPES + L".mp3", L"Other", L"another vendor's value");
    // What removal leaves of the lists that the user edits below.
    plant(TYPES + L".gif", L"InfoTip", L"prop:My.Own");
    plant(TYPES + L".jpg", L"InfoTip", L"prop:A;B");
    plant(TYPES + L".webp", L"InfoTip", L"");
    const auto left = dump_registry(root);

    EXPECT_EQ(install(), 0U);
    for (const wchar_t* type : {L".arw", L".heic", L".jpeg", L".mp3"}) {
        EXPECT_TRUE(has(handlers + type, L"", OURS)) << type;
    }
    EXPECT_TRUE(has(TYPES + L".arw", L"InfoTip", list + L";System.Calendar.Location"));
    EXPECT_TRUE(has(TYPES + L".arw", L"FullDetails", std::wstring{list}.insert(list.find(L"My"), address)));

    plant(handlers + L".arw", L"", L"a newer handler, not backed up");
    EXPECT_EQ(install(), 0U);
    plant(handlers + L".unknown", L"", OURS);
    plant(TYPES + L".gif", L"InfoTip", L"prop:My.Own");
    plant(TYPES + L".jpg", L"InfoTip", L"prop:A;System.Calendar.Location;B");
    plant(TYPES + L".webp", L"InfoTip", L"System.Calendar.Location");
    EXPECT_EQ(remove(), 0U);
    EXPECT_EQ(dump_registry(root), left);
}

TEST_F(PropertyHandler, reads_any_value_as_text_and_keeps_long_ones)
{
    const std::wstring nul(1, L'\0');
    const std::wstring longer(1'100'000, L'x');
    plant(handlers + L".heic", L"", OURS);
    plant(TYPES + L".heic", L"InfoTip", L"prop:A" + nul + L"B", REG_MULTI_SZ);
    plant(handlers + L".webp", L"", nul + L"x"); // not empty, but an empty text: nothing to back up
    plant(handlers + L".arw", L"", longer);
    plant(handlers + L".tif", L"", FOREIGN);
    plant_value(root, handlers + L".tif", L"OriginalPropertyHandler", {}, REG_NONE);
    EXPECT_EQ(install(), 0U);
    EXPECT_TRUE(has(TYPES + L".heic", L"InfoTip", L"prop:A;System.Calendar.Location"));
    const std::wstring lists = TYPES + L".heic";
    EXPECT_EQ(RegGetValueW(root, lists.c_str(), L"InfoTip", RRF_RT_REG_SZ, nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(has(handlers + L".webp", L"", OURS));
    EXPECT_EQ(planted_value(root, handlers + L".webp", L"OriginalPropertyHandler"), std::nullopt);
    EXPECT_EQ(planted_value(root, handlers + L".tif", L"OriginalPropertyHandler"), "") << "overwritten";
    EXPECT_EQ(remove(), 0U);
    EXPECT_TRUE(has(handlers + L".arw", L"", longer));
    EXPECT_EQ(planted_value(root, handlers + L".tif", L""), std::nullopt) << "its backup is not readable";
}

TEST_F(PropertyHandler, continues_after_a_key_that_fails)
{
    EXPECT_EQ(remove(), 0U) << "without any handler";
    install();
    const failing_import<"RegOpenKeyExA", decltype(RegOpenKeyExA)> no_opening{
        program, ERROR_ACCESS_DENIED, {.last_error = 0}};
    EXPECT_EQ(remove(), 1603U);
    EXPECT_TRUE(has(handlers + L".zip", L"", OURS));
    const failing_import<"RegDeleteKeyA", decltype(RegDeleteKeyA)> no_deleting{
        program, ERROR_ACCESS_DENIED, {.last_error = 0}};
    EXPECT_EQ(remove(), 1603U);
    EXPECT_TRUE(has(handlers + L".arw", L"", OURS));
    EXPECT_EQ(planted_value(root, TYPES + L".arw", L"FullDetails"), std::nullopt);
    EXPECT_EQ(planted_value(root, handlers + L".zip", L""), std::nullopt);

    const failing_import<"RegSetValueExA", decltype(RegSetValueExA)> no_writing{
        program, ERROR_ACCESS_DENIED, {.last_error = 0}};
    EXPECT_EQ(install(), 0U) << "a key that fails must not fail the installation";
    EXPECT_NE(output.find("\n[propertyhandler]   FAILED: .asm (fresh install)\n"), std::string::npos);
    EXPECT_TRUE(has(handlers + L".aspx", L"", OURS));
}

class IconHandler : public ShellRegistration {
protected:
    IconHandler() : ShellRegistration{HKEY_CURRENT_USER} {}

    UINT remove() { return custom_actions::remove_icon_handler(log); }

    inline static unsigned notifications = 0;
    import_patch<decltype(SHChangeNotify)> notify{
        program, "SHChangeNotify", [](LONG event, UINT, LPCVOID, LPCVOID) {
            notifications += event == SHCNE_ASSOCCHANGED ? 1U : 0U;
        }};
};

TEST_F(IconHandler, covers_its_types_and_their_progids_and_is_removed_without_a_trace)
{
    static constexpr const wchar_t* ours = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";
    static constexpr const wchar_t* ours_in_lower_case = L"{931cc9dd-9e0f-4fa1-aa06-229d0372956a}";
    static constexpr const wchar_t* mark = L"QuorbelTreatment";
    const std::wstring icon_slot = LR"(\ShellEx\IconHandler)";
    const std::wstring thumbnail_slot = LR"(\ShellEx\{e357fccd-a995-4576-b01f-234630154e96})";
    const intercepted_import<"AssocQueryStringW", decltype(AssocQueryStringW)> queries{
        program,
        [](ASSOCF, ASSOCSTR, LPCWSTR type, LPCWSTR, LPWSTR text, DWORD* length) -> std::optional<HRESULT> {
            *length = 4;
            if (text == nullptr) {
                return E_POINTER; // the length is returned
            }
            std::copy_n(type + 1, *length, text);
            return S_OK;
        }};
    const std::wstring explorer = LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\)";
    plant(explorer + LR"(FileExts\.ico\UserChoice)", L"ProgId", L"chosen");
    plant(CLASSES + L".ico", L"", L"user's");
    plant_value(HKEY_CLASSES_ROOT, L".ico", L"", registry_text(L"machine's"));
    for (const wchar_t* name : {L"", L"*", L"App", L"appx", L"AppXabc", L"other"}) {
        plant(CLASSES + LR"(.ico\OpenWithProgids)", name, L"");
    }
    std::vector<std::wstring> slots{TYPES + L".ini" + icon_slot, TYPES + L".ico" + icon_slot};
    for (const auto* progid : {L"ini", L"ico", L"chosen", L"user's", L"machine's", L"App", L"other"}) {
        plant(CLASSES + progid, L"", L"a key itself is never deleted");
        slots.push_back(CLASSES + progid + icon_slot);
    }
    plant(slots[0], L"", FOREIGN);
    plant(slots[1], L"", ours_in_lower_case);
    plant(slots[2], L"", std::wstring(5000, L'x'));
    plant(slots[3], L"", FOREIGN);
    const std::wstring longest = CLASSES + std::wstring(255, L'n');
    plant(longest, L"Other", L"somebody's");
    plant(CLASSES + LR"(shared\ShellEx\Other)", L"", FOREIGN);
    plant(CLASSES + L"another" + icon_slot, L"", FOREIGN);
    plant(TYPES + L".ini", L"Treatment", L"somebody's");
    plant(TYPES + L".ini", mark, ZERO, REG_DWORD);
    plant(TYPES + L".png" + thumbnail_slot, L"", FOREIGN);
    const auto before = dump_registry(root);
    const wchar_t* const backup = L"sorvane_original_icon_handler";
    plant(slots[3], backup, L"not a text, so not a backup", REG_BINARY);

    custom_actions::register_icon_handler(log);
    plant(slots[0], L"", L"a newer handler, not backed up");
    notifications = 0;
    custom_actions::register_icon_handler(log);
    for (const std::wstring& slot : slots) {
        EXPECT_TRUE(has(slot, L"", ours));
    }
    plant(longest + icon_slot, L"", ours_in_lower_case);
    plant(longest + thumbnail_slot, L"", ours);
    plant(longest + thumbnail_slot, backup, L"not a text", REG_BINARY);
    plant(CLASSES + L"shared" + icon_slot, L"", ours);
    plant(TYPES + L".png" + thumbnail_slot, L"", ours);
    plant(TYPES + L".png" + thumbnail_slot, backup, FOREIGN);
    plant(TYPES + L".png", L"Treatment", L"ours");
    plant(TYPES + L".png", mark, ONE, REG_DWORD);
    EXPECT_EQ(remove(), 0U);
    EXPECT_EQ(notifications, 2U);
    EXPECT_EQ(dump_registry(root), before);
}

TEST_F(IconHandler, restores_drive_icons_and_the_new_menu)
{
    const auto drive = [](wchar_t letter) {
        return CLASSES + LR"(Applications\Explorer.exe\Drives\)" + letter + LR"(\DefaultIcon)";
    };
    const auto apply = [&](wchar_t letter, const wchar_t* icon, const std::wstring& had_original) {
        plant(drive(letter), L"", icon);
        plant(drive(letter), L"sorvane_drive_icon_applied", L"ours.ico");
        plant(drive(letter), L"sorvane_drive_icon_had_original", had_original, REG_BINARY); // of any type
    };
    const std::wstring new_menu = CLASSES + LR"(Directory\Background\ShellEx\ContextMenuHandlers\New)";
    plant(drive(L'A'), L"", L"before.ico");
    apply(L'B', L"Ours.ico", ONE); // changed by the user since
    plant(drive(L'Z'), L"Other", L"somebody's");
    plant(new_menu, L"Other", L"somebody's");
    const auto before = dump_registry(root);

    apply(L'A', L"ours.ico", ONE);
    apply(L'Z', L"ours.ico", ZERO);
    plant(new_menu, L"", FOREIGN);
    EXPECT_EQ(remove(), 1603U);
    EXPECT_TRUE(has(drive(L'A'), L"", L"ours.ico")) << "without a backup our icon must stay";
    EXPECT_EQ(planted_value(root, drive(L'Z'), L""), std::nullopt);
    plant(drive(L'A'), L"sorvane_drive_icon_original", L"before.ico", REG_EXPAND_SZ);
    EXPECT_EQ(remove(), 0U);
    custom_actions::restore_new_menu(log);
    EXPECT_EQ(dump_registry(root), before);
}

} // namespace
} // namespace test_support
