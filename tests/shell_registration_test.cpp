// Shell registration: registered and removed again, in a furnished registry.

#include "custom_actions/shell_registration/icon_handler.h"
#include "custom_actions/shell_registration/new_menu.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "support/real_session.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"
#include "tests/support/furnished_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <strsafe.h>

#include <optional>
#include <string>

namespace test_support {
namespace {

const std::wstring ARW = LR"(Software\Classes\SystemFileAssociations\.arw)";
const std::wstring ZIP = LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers\.zip)";
const std::wstring DRIVE_C = LR"(Software\Classes\Applications\Explorer.exe\Drives\C\DefaultIcon)";

class ShellRegistration : public testing::Test {
protected:
    registry_sandbox classes_root{HKEY_CLASSES_ROOT}; // follows neither of the others
    registry_sandbox machine{HKEY_LOCAL_MACHINE};
    registry_sandbox user{HKEY_CURRENT_USER}; // last: a sandbox is a key of the user's
    real_session session;
    const custom_actions::action_log log{session.handle(), L"tested"};
};

TEST_F(ShellRegistration, is_removed_without_a_trace)
{
    // A ProgId for every type: its extension without the dot. The first call asks for the length.
    const import_hook associations{
        GetModuleHandleW(nullptr),
        "AssocQueryStringW",
        [](DWORD, DWORD, LPCWSTR type, LPCWSTR, LPWSTR text, DWORD* length) {
            *length = 4;
            return text == nullptr ? E_POINTER : StringCchCopyW(text, *length, type + 1);
        }};
    std::string written; // names of the machine's values
    const import_hook writing{GetModuleHandleW(nullptr), "RegSetValueExA", [&](HKEY, LPCSTR name) {
                                  written.append(name) += ',';
                                  return std::optional<LSTATUS>{};
                              }};
    plant_value(HKEY_CLASSES_ROOT, L".ico", L"", registry_text(L"machine's"));
    plant(origin::others, HKEY_LOCAL_MACHINE);
    plant(origin::others, HKEY_CURRENT_USER);
    for (const wchar_t* name : {L"", L"sorvane_drive_icon_applied"}) { // with no backup beside it
        plant_value(HKEY_CURRENT_USER, DRIVE_C, name, registry_text(L"ours.ico"));
    }
    plant_number(HKEY_CURRENT_USER, DRIVE_C, L"sorvane_drive_icon_had_original", 1);
    const auto machine_before = dump_registry(HKEY_LOCAL_MACHINE);
    const auto user_before = dump_registry(HKEY_CURRENT_USER);
    plant(origin::suite, HKEY_LOCAL_MACHINE);
    plant(origin::suite, HKEY_CURRENT_USER);

    EXPECT_EQ(register_property_handler(log), 0U);
    register_icon_handler(log);
    EXPECT_THAT(written, testing::StartsWith("OriginalPropertyHandler,,,FullDetails,PreviewDetails,InfoTip,"))
        << "first the backup of .arw, then its handler; the handler of .asm, then its lists";
    EXPECT_EQ(
        planted_value(HKEY_LOCAL_MACHINE, ARW, L"InfoTip"),
        registry_text(L"prop:A;System.Calendar.Location"));
    EXPECT_EQ(
        planted_value(HKEY_LOCAL_MACHINE, ARW, L"FullDetails"),
        registry_text(
            L"prop:System.PropGroup.Description;System.Calendar.Location;System.Contact.PrimaryAddressCity;"
            L"System.Contact.PrimaryAddressState;System.Contact.PrimaryAddressCountry;My.Own"));

    // What cannot be put back stays in its backup, for the next removal.
    const auto denied = [](HKEY, LPCSTR name) -> std::optional<LSTATUS> { // the default value, in both forms
        return *name == '\0' ? std::optional{ERROR_ACCESS_DENIED} : std::nullopt;
    };
    EXPECT_EQ(thrown_with("RegSetValueExA", denied, [this] { remove_property_handler(log); }), "");
    EXPECT_EQ(thrown_with("RegSetValueExW", denied, [this] { remove_icon_handler(log); }), "");
    EXPECT_EQ(remove_property_handler(log), 0U);
    EXPECT_EQ(remove_icon_handler(log), 1603U) << "the icon of drive C cannot be restored";
    restore_new_menu(log);
    EXPECT_THAT(dump_registry(HKEY_LOCAL_MACHINE), testing::ContainerEq(machine_before));
    EXPECT_THAT(dump_registry(HKEY_CURRENT_USER), testing::ContainerEq(user_before));
}

TEST_F(ShellRegistration, continues_after_a_property_handler_that_fails)
{
    const auto fail_to_remove = [this] { EXPECT_EQ(remove_property_handler(log), 1603U); };
    EXPECT_EQ(remove_property_handler(log), 0U); // without any handler
    EXPECT_EQ(register_property_handler(log), 0U);
    thrown_with("RegOpenKeyExA", fail_with(ERROR_ACCESS_DENIED, 0), fail_to_remove);
    thrown_with("RegDeleteKeyA", fail_with(ERROR_ACCESS_DENIED, 0), fail_to_remove);
    EXPECT_EQ(planted_value(HKEY_LOCAL_MACHINE, ARW, L"FullDetails"), std::nullopt)
        << "stays with its handler";
    EXPECT_EQ(planted_value(HKEY_LOCAL_MACHINE, ZIP, L""), std::nullopt) << "stays behind one that fails";

    testing::internal::CaptureStdout(); // a key that fails must not fail the installation
    thrown_with("RegSetValueExA", fail_with(ERROR_ACCESS_DENIED, 0), [this] {
        EXPECT_EQ(register_property_handler(log), 0U);
    });
    EXPECT_THAT(
        testing::internal::GetCapturedStdout(),
        testing::HasSubstr("\n[propertyhandler]   FAILED: .asm (fresh install)\n"));
}

} // namespace
} // namespace test_support
