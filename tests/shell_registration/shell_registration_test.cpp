// Shell registration: registered and removed again, in sandboxed hives.

#include "custom_actions/shell_registration/drive_icons.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/shell_registration/new_menu.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "support/real_session.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

const std::wstring FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
const std::wstring CLASSES = LR"(Software\Classes\)";
const std::wstring TYPES = LR"(Software\Classes\SystemFileAssociations\)";
const std::wstring HANDLERS =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\)";

// REG_DWORD values as texts: one character and the terminating zero have the same four bytes.
const std::wstring ZERO(1, L'\0');
const std::wstring ONE(1, L'\1');

class ShellRegistration : public testing::Test {
protected:
    void plant(const std::wstring& path, const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ)
    {
        plant_value(root, path, name, registry_text(text), type);
    }

    void apply_drive_icon(const std::wstring& drive, const wchar_t* icon, const std::wstring& had_original)
    {
        plant(drive, L"", icon);
        plant(drive, L"sorvane_drive_icon_applied", L"ours.ico");
        plant(drive, L"sorvane_drive_icon_had_original", had_original, REG_BINARY); // of any type
    }

    // Returns what the action printed.
    std::string run(UINT (*action)(const custom_actions::action_log&), UINT code) const
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(action(log), code);
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    HKEY root = HKEY_LOCAL_MACHINE; // of what is planted
    registry_sandbox machine{HKEY_LOCAL_MACHINE};
    registry_sandbox user{HKEY_CURRENT_USER};
    registry_sandbox classes_root{HKEY_CLASSES_ROOT}; // follows neither
    real_session session;
    const custom_actions::action_log log{session.handle(), L"tested"};
    const std::string our_handler = registry_text(L"{73A6EEEE-36B5-4536-A731-8F92EF883087}");
    const std::wstring our_icons = L"{931CC9DD-9E0F-4FA1-AA06-229D0372956A}";
};

TEST_F(ShellRegistration, removes_property_handlers_and_keeps_what_others_and_the_user_wrote)
{
    const std::wstring list = L"prop:System.PropGroup.Description;";
    const std::wstring address =
        L"System.Calendar.Location;System.Contact.PrimaryAddressCity;System.Contact.PrimaryAddressState;"
        L"System.Contact.PrimaryAddressCountry;";
    plant(HANDLERS + L".arw", L"", std::wstring(1500, L'x'));
    for (const wchar_t* type : {L".heic", L".xyz"}) {
        plant(HANDLERS + type, L"", L"{73a6eeee-36b5-4536-a731-8f92ef883087}"); // not ours: in lower case
    }
    plant(TYPES + L".arw", L"InfoTip", L"prop:A");
    plant(TYPES + L".arw", L"FullDetails", list + L"My.Own");
    plant(TYPES + L".gif", L"InfoTip", L"the user's");
    plant(TYPES + L".mp3", L"Other", L"another vendor's value");
    const auto left = dump_registry(root);
    plant(HANDLERS + L".tif", L"", FOREIGN);
    plant(HANDLERS + L".tif", L"OriginalPropertyHandler", L"", REG_NONE); // kept, so there is none to restore
    plant(HANDLERS + L".webp", L"", ZERO + L"x"); // an empty text, but not an empty value
    plant(HANDLERS + L".zip", L"", L"");          // an empty value is no handler

    run(custom_actions::register_property_handler, 0);
    for (const wchar_t* type : {L".arw", L".heic", L".mp3", L".webp", L".zip"}) {
        EXPECT_EQ(planted_value(root, HANDLERS + type, L""), our_handler) << type;
    }
    const std::wstring arw = TYPES + L".arw";
    EXPECT_EQ(planted_value(root, arw, L"InfoTip"), registry_text(L"prop:A;System.Calendar.Location"));
    EXPECT_EQ(planted_value(root, arw, L"FullDetails"), registry_text(list + address + L"My.Own"));
    EXPECT_EQ(planted_value(root, HANDLERS + L".webp", L"OriginalPropertyHandler"), std::nullopt);

    plant(HANDLERS + L".arw", L"", L"a newer handler, not backed up");
    run(custom_actions::register_property_handler, 0);
    plant_value(root, HANDLERS + L".unknown", L"", our_handler);
    plant(TYPES + L".gif", L"InfoTip", L"the user's");
    run(custom_actions::remove_property_handler, 0);
    EXPECT_THAT(dump_registry(root), testing::ContainerEq(left));
}

TEST_F(ShellRegistration, continues_after_a_property_handler_that_fails)
{
    const auto fail_to_remove = [this] { run(custom_actions::remove_property_handler, 1603); };
    run(custom_actions::remove_property_handler, 0); // without any handler
    run(custom_actions::register_property_handler, 0);
    thrown_with("RegOpenKeyExA", fail_with(ERROR_ACCESS_DENIED, 0), fail_to_remove);
    EXPECT_EQ(planted_value(root, HANDLERS + L".zip", L""), our_handler);
    thrown_with("RegDeleteKeyA", fail_with(ERROR_ACCESS_DENIED, 0), fail_to_remove);
    EXPECT_EQ(planted_value(root, HANDLERS + L".arw", L""), our_handler);
    EXPECT_EQ(planted_value(root, TYPES + L".arw", L"FullDetails"), std::nullopt);
    EXPECT_EQ(planted_value(root, HANDLERS + L".zip", L""), std::nullopt);

    std::string printed; // a key that fails must not fail the installation
    const auto fail_to_register = [&] { printed = run(custom_actions::register_property_handler, 0); };
    thrown_with("RegSetValueExA", fail_with(ERROR_ACCESS_DENIED, 0), fail_to_register);
    EXPECT_THAT(printed, testing::HasSubstr("\n[propertyhandler]   FAILED: .asm (fresh install)\n"));
}

TEST_F(ShellRegistration, removes_icon_handlers_drive_icons_and_the_new_menu_without_a_trace)
{
    root = HKEY_CURRENT_USER;
    const std::wstring ours_in_lower_case = L"{931cc9dd-9e0f-4fa1-aa06-229d0372956a}";
    const wchar_t* const backup = L"sorvane_original_icon_handler";
    const std::wstring icon_slot = LR"(\ShellEx\IconHandler)";
    const std::wstring thumbnails = LR"(\ShellEx\{e357fccd-a995-4576-b01f-234630154e96})";
    const std::wstring files = LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\FileExts\)";
    // A ProgId for every type: its extension without the dot.
    const import_hook associations{
        GetModuleHandleW(nullptr),
        "AssocQueryStringW",
        [](DWORD, DWORD, LPCWSTR type, LPCWSTR, LPWSTR text, DWORD* length) {
            *length = 4;
            if (text == nullptr) {
                return E_POINTER; // the length is returned
            }
            std::copy_n(type + 1, *length, text);
            return S_OK;
        }};
    plant(files + LR"(.ico\UserChoice)", L"ProgId", L"chosen");
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
    const std::wstring longest = CLASSES + std::wstring(255, L'n');
    plant(longest, L"Other", L"somebody's");
    plant(CLASSES + LR"(shared\ShellEx\Other)", L"", FOREIGN);
    plant(CLASSES + L"another" + icon_slot, L"", FOREIGN);
    plant(TYPES + L".ini", L"Treatment", L"somebody's");
    plant(TYPES + L".ini", L"QuorbelTreatment", ZERO, REG_DWORD);
    plant(TYPES + L".png" + thumbnails, L"", FOREIGN);
    const std::wstring drives = CLASSES + LR"(Applications\Explorer.exe\Drives\)";
    const std::wstring drive_a = drives + LR"(A\DefaultIcon)";
    const std::wstring drive_z = drives + LR"(Z\DefaultIcon)";
    const std::wstring new_menu = CLASSES + LR"(Directory\Background\ShellEx\ContextMenuHandlers\New)";
    plant(drive_a, L"", L"before.ico");
    apply_drive_icon(drives + LR"(B\DefaultIcon)", L"Ours.ico", ONE); // changed by the user since
    plant(drive_z, L"Other", L"somebody's");
    plant(new_menu, L"Other", L"somebody's");
    const auto before = dump_registry(root);

    plant(slots[2], backup, L"not a text, so not a backup", REG_BINARY);
    register_icon_handler(log);
    plant(slots[0], L"", L"a newer handler, not backed up");
    register_icon_handler(log);
    for (const std::wstring& slot : slots) {
        EXPECT_EQ(planted_value(root, slot, L""), registry_text(our_icons)) << testing::PrintToString(slot);
    }
    plant(longest + icon_slot, L"", ours_in_lower_case);
    plant(longest + thumbnails, L"", our_icons);
    plant(longest + thumbnails, backup, L"not a text", REG_BINARY);
    plant(CLASSES + L"shared" + icon_slot, L"", our_icons);
    plant(TYPES + L".png" + thumbnails, L"", our_icons);
    plant(TYPES + L".png" + thumbnails, backup, FOREIGN);
    plant(TYPES + L".png", L"Treatment", L"ours");
    plant(TYPES + L".png", L"QuorbelTreatment", ONE, REG_DWORD);
    apply_drive_icon(drive_a, L"ours.ico", ONE);
    apply_drive_icon(drive_z, L"ours.ico", ZERO);
    plant(new_menu, L"", FOREIGN);
    EXPECT_EQ(remove_icon_handler(log), 1603U);
    EXPECT_EQ(planted_value(root, drive_a, L""), registry_text(L"ours.ico")) << "it has no backup yet";
    EXPECT_EQ(planted_value(root, drive_z, L""), std::nullopt);
    plant(drive_a, L"sorvane_drive_icon_original", L"before.ico", REG_EXPAND_SZ);
    EXPECT_TRUE(custom_actions::restore_drive_icons());
    restore_new_menu(log);
    EXPECT_THAT(dump_registry(root), testing::ContainerEq(before));
}

} // namespace
} // namespace test_support
