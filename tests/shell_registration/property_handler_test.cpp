// Registration and removal of the property handler, on a machine hive of the tests' own.

#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "tests/support/failing_import.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace custom_actions {
namespace {

using test_support::dump_registry;
using test_support::import_patch;
using test_support::intercepted_import;
using test_support::plant_value;
using test_support::planted_value;
using test_support::posted_message;
using test_support::registry_text;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const wchar_t* OURS = L"{73A6EEEE-36B5-4536-A731-8F92EF883087}";
constexpr const wchar_t* OURS_IN_OTHER_LETTERS = L"{73a6eeee-36b5-4536-a731-8f92ef883087}";
constexpr const wchar_t* FOREIGN = L"{11111111-2222-3333-4444-555555555555}";
constexpr UINT LINE = 0x04000000;
constexpr UINT ERROR_BOX = 0x01000000;

const std::wstring HANDLERS = LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
const std::wstring ASSOCIATIONS = LR"(SOFTWARE\Classes\SystemFileAssociations)";

std::wstring handler_path(const std::wstring& extension)
{
    return HANDLERS + L'\\' + extension;
}

std::wstring lists_path(const std::wstring& extension)
{
    return ASSOCIATIONS + L'\\' + extension;
}

// One call of the registry that is to fail, of those that the code under test makes.
struct registry_fault {
    std::string call;    // "open", "create", "write" or "delete"
    std::string subject; // the end of the key's path, or the name of the value
    REGSAM access = 0;   // for "open" and "create": the mask asked for
    LSTATUS code = ERROR_ACCESS_DENIED;
};

std::optional<registry_fault> planned_fault; // what is to fail as long as it stands
std::vector<std::string> registry_calls;     // "open 20019 path", ... of the code under test

std::optional<LSTATUS> answer(const char* call, REGSAM access, std::string_view subject)
{
    std::ostringstream text;
    text << call << ' ' << std::hex << std::uppercase << access << ' ' << subject;
    registry_calls.push_back(text.str());
    const bool fails = planned_fault && planned_fault->call == call &&
                       subject.ends_with(planned_fault->subject) &&
                       (planned_fault->access == 0 || planned_fault->access == access);
    return fails ? std::optional{planned_fault->code} : std::nullopt;
}

class PropertyHandler : public testing::Test {
protected:
    PropertyHandler()
    {
        plant_value(HKEY_LOCAL_MACHINE, HANDLERS, L"somebody's", registry_text(L"value"));
        plant_value(HKEY_LOCAL_MACHINE, ASSOCIATIONS, L"somebody's", registry_text(L"value"));
    }

    ~PropertyHandler() override { planned_fault.reset(); }

    // Each returns what the action wrote to standard output.
    std::string install() { return run(register_property_handler, ERROR_SUCCESS); }

    std::string remove(UINT expected = ERROR_SUCCESS) { return run(remove_property_handler, expected); }

    std::string run(UINT (*action)(MSIHANDLE), UINT expected)
    {
        registry_calls.clear();
        testing::internal::CaptureStdout();
        EXPECT_EQ(action(session.handle()), expected);
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    static std::optional<std::string> handler(const std::wstring& extension, const wchar_t* name = L"")
    {
        return planted_value(HKEY_LOCAL_MACHINE, handler_path(extension), name);
    }

    static std::optional<std::string> list(const std::wstring& extension, const wchar_t* name)
    {
        return planted_value(HKEY_LOCAL_MACHINE, lists_path(extension), name);
    }

    static void plant_handler(const std::wstring& extension, std::string_view bytes, DWORD type = REG_SZ)
    {
        plant_value(HKEY_LOCAL_MACHINE, handler_path(extension), L"", bytes, type);
    }

    static void plant_list(const std::wstring& extension, const wchar_t* name, std::wstring_view text)
    {
        plant_value(HKEY_LOCAL_MACHINE, lists_path(extension), name, registry_text(text));
    }

    static std::vector<std::string> hive() { return dump_registry(HKEY_LOCAL_MACHINE); }

    test_support::registry_sandbox machine{HKEY_LOCAL_MACHINE};
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
    HMODULE program = GetModuleHandleW(nullptr);
    // Elevated, whatever the test program is.
    intercepted_import<"GetTokenInformation", decltype(GetTokenInformation)> elevation{
        program,
        [](HANDLE, TOKEN_INFORMATION_CLASS what, LPVOID answer, DWORD, PDWORD) -> std::optional<BOOL> {
            if (what != TokenElevation) {
                return std::nullopt;
            }
            static_cast<TOKEN_ELEVATION*>(answer)->TokenIsElevated = TRUE;
            return TRUE;
        }};
    intercepted_import<"RegOpenKeyExA", decltype(RegOpenKeyExA)> opens{
        program, [](HKEY, LPCSTR path, DWORD, REGSAM access, PHKEY) { return answer("open", access, path); }};
    intercepted_import<"RegCreateKeyExA", decltype(RegCreateKeyExA)> creates{
        program,
        [](HKEY, LPCSTR path, DWORD, LPSTR, DWORD, REGSAM access, LPSECURITY_ATTRIBUTES, PHKEY, LPDWORD) {
            return answer("create", access, path);
        }};
    intercepted_import<"RegSetValueExA", decltype(RegSetValueExA)> writes{
        program,
        [](HKEY, LPCSTR name, DWORD, DWORD, const BYTE*, DWORD) { return answer("write", 0, name); }};
    intercepted_import<"RegDeleteKeyA", decltype(RegDeleteKeyA)> deletes{
        program, [](HKEY, LPCSTR name) { return answer("delete", 0, name); }};
};

TEST_F(PropertyHandler, is_registered_for_every_type_with_its_lists)
{
    EXPECT_EQ(install(), "");
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            posted_message{LINE, L"Custom action: propertyhandler_updateregistry: Starting..."},
            posted_message{
                LINE, L"Custom action: propertyhandler_updateregistry: Registry updated successfully."}));
    for (const std::string_view extension : PROPERTY_HANDLER_EXTENSIONS) {
        EXPECT_EQ(handler({extension.begin(), extension.end()}), registry_text(OURS)) << extension;
    }
    const std::wstring full_details{FULL_DETAILS_LIST.begin(), FULL_DETAILS_LIST.end()};
    EXPECT_EQ(list(L".txt", L"FullDetails"), registry_text(full_details));
    EXPECT_EQ(
        list(L".txt", L"PreviewDetails"),
        registry_text(L"prop:System.ItemType;System.Comment;System.Keywords;System.Rating;System.Size"));
    EXPECT_EQ(
        list(L".txt", L"InfoTip"),
        registry_text(L"prop:System.ItemType;System.Keywords;System.Rating;System.Comment;System.Size"));
    EXPECT_EQ(
        list(L".jpg", L"InfoTip"),
        registry_text(L"prop:System.ItemType;System.Keywords;System.Rating;System.Comment;System.Size;"
                      L"System.Calendar.Location"));
    std::wstring extended = full_details;
    extended.insert(
        extended.find(L"System.Rating"),
        L"System.Calendar.Location;System.Contact.PrimaryAddressCity;System.Contact.PrimaryAddressState;"
        L"System.Contact.PrimaryAddressCountry;");
    EXPECT_EQ(list(L".jpg", L"FullDetails"), registry_text(extended)) << "in the opposite order";
}

TEST_F(PropertyHandler, writes_nothing_the_second_time)
{
    plant_handler(L".bmp", registry_text(FOREIGN));
    EXPECT_EQ(install(), "[propertyhandler] overrode existing handler for '.bmp' (backup saved)\n");
    const auto after_first = hive();
    EXPECT_EQ(install(), "");
    EXPECT_EQ(hive(), after_first);
    EXPECT_THAT(registry_calls, testing::Not(testing::Contains(testing::StartsWith("write"))));
}

TEST_F(PropertyHandler, keeps_or_saves_what_somebody_else_registered)
{
    const std::string class_text = registry_text(FOREIGN);
    const std::string long_text = registry_text(std::wstring(1500, L'x'));
    const std::string other_letters = registry_text(OURS_IN_OTHER_LETTERS);

    struct {
        const char* what;
        std::string bytes;
        DWORD type;
        std::string restored; // a text, whatever it was
    } const foreign[]{
        {"another class", class_text, REG_SZ, class_text},
        {"ours in other letters", other_letters, REG_SZ, other_letters},
        {"more than the buffer", long_text, REG_SZ, long_text},
        {"no terminating zero", class_text.substr(0, 76), REG_SZ, class_text},
        {"half a character more", class_text.substr(0, 76) + "x", REG_SZ, class_text},
        {"bytes", {"\1\0\2\3", 4}, REG_BINARY, {"\1\0\0\0\2\0\3\0\0\0", 10}},
        {"a number", {"\0\0\0\0", 4}, REG_DWORD, std::string(8, '\0')},
    };

    for (const auto& [what, bytes, type, restored] : foreign) {
        plant_handler(L".png", bytes, type);
        plant_handler(L".jpg", bytes, type);
        const auto before = hive();
        install();
        EXPECT_EQ(handler(L".png"), bytes) << what << " on a type that is not overridden";
        EXPECT_EQ(handler(L".jpg"), registry_text(OURS)) << what;
        EXPECT_FALSE(list(L".png", L"FullDetails")) << "no lists beside a handler that was there";
        EXPECT_FALSE(list(L".jpg", L"FullDetails")) << "nor beside one that was replaced";
        install();
        remove();
        EXPECT_EQ(handler(L".jpg"), restored) << what;
        EXPECT_FALSE(handler(L".jpg", L"OriginalPropertyHandler")) << what;
        if (bytes == restored) {
            EXPECT_EQ(hive(), before) << what;
        }
    }
}

TEST_F(PropertyHandler, never_overwrites_a_backup)
{
    plant_handler(L".jpg", registry_text(FOREIGN));
    plant_value(
        HKEY_LOCAL_MACHINE, handler_path(L".jpg"), L"OriginalPropertyHandler", registry_text(L"earlier"));
    install();
    EXPECT_EQ(handler(L".jpg", L"OriginalPropertyHandler"), registry_text(L"earlier"));
    remove();
    EXPECT_EQ(handler(L".jpg"), registry_text(L"earlier"));
}

TEST_F(PropertyHandler, leaves_the_hive_as_it_was)
{
    plant_handler(L".webp", registry_text(FOREIGN));
    plant_list(L".webp", L"InfoTip", L"prop:My.Own;System.Size");
    plant_list(L".webp", L"FullDetails", L"prop:System.PropGroup.Description;My.Own");
    plant_list(L".heic", L"Other", L"a value of somebody's");
    plant_handler(L".xyz", registry_text(FOREIGN));
    const auto before = hive();
    install();
    EXPECT_EQ(list(L".webp", L"InfoTip"), registry_text(L"prop:My.Own;System.Size;System.Calendar.Location"));
    install();
    remove();
    EXPECT_EQ(hive(), before);
}

TEST_F(PropertyHandler, rewrites_no_list_that_it_does_not_understand)
{
    struct {
        const char* what;
        std::string bytes;
        DWORD type;
    } const lists[]{
        {"several texts", registry_text(std::wstring{L"prop:A\0B", 8}), REG_MULTI_SZ},
        {"more behind the zero", registry_text(std::wstring{L"prop:A\0B", 8}), REG_SZ},
        {"a number", std::string{"ABCD"}, REG_DWORD},
        {"more than the buffer", registry_text(std::wstring(5000, L'x')), REG_SZ},
        {"empty", registry_text(L""), REG_SZ},
    };

    for (const auto& [what, bytes, type] : lists) {
        plant_handler(L".jpg", registry_text(FOREIGN));
        plant_value(HKEY_LOCAL_MACHINE, lists_path(L".jpg"), L"InfoTip", bytes, type);
        plant_value(HKEY_LOCAL_MACHINE, lists_path(L".jpg"), L"FullDetails", bytes, type);
        const auto before = hive();
        install();
        remove();
        EXPECT_EQ(hive(), before) << what;
    }
}

TEST_F(PropertyHandler, keeps_the_lists_that_the_user_edited)
{
    install();
    plant_list(L".txt", L"InfoTip", L"prop:My.Own");
    plant_list(L".jpg", L"InfoTip", L"System.Calendar.Location");
    EXPECT_THAT(
        remove(),
        testing::HasSubstr("  - Removed matching FullDetails.\n  - Removed matching PreviewDetails.\n"));
    EXPECT_FALSE(handler(L".txt"));
    EXPECT_EQ(list(L".txt", L"InfoTip"), registry_text(L"prop:My.Own"));
    EXPECT_FALSE(list(L".txt", L"FullDetails"));
    EXPECT_EQ(list(L".jpg", L"InfoTip"), registry_text(L"")) << "written back, though empty";
    EXPECT_FALSE(list(L".mp3", L"InfoTip"));
    EXPECT_THAT(
        session.messages().back(),
        (posted_message{
            LINE, L"Custom action: propertyhandler_removeregistry: Registry updated successfully."}));
}

TEST_F(PropertyHandler, is_removed_wherever_it_is_and_from_nowhere_else)
{
    plant_handler(L".unknown", registry_text(OURS));
    plant_handler(L".other", registry_text(OURS_IN_OTHER_LETTERS));
    plant_handler(L".short", registry_text(L"{73A6EEEE"));
    EXPECT_EQ(remove(), "");
    EXPECT_FALSE(handler(L".unknown"));
    EXPECT_TRUE(handler(L".other"));
    EXPECT_TRUE(handler(L".short"));
}

TEST_F(PropertyHandler, asks_for_no_more_access_than_it_needs)
{
    plant_handler(L".jpg", registry_text(FOREIGN));
    install();
    const std::string handlers =
        R"( SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
    const std::string lists = R"( SOFTWARE\Classes\SystemFileAssociations\)";
    using testing::Contains;
    EXPECT_THAT(registry_calls, Contains("open 20019" + handlers + R"(\.txt)"));
    EXPECT_THAT(registry_calls, Contains("create 20006" + handlers + R"(\.txt)"));
    EXPECT_THAT(registry_calls, Contains("create 20006" + lists + ".txt"));
    EXPECT_THAT(registry_calls, Contains("open 2001F" + handlers + R"(\.jpg)"));
    EXPECT_THAT(registry_calls, Contains("open 2001F" + lists + ".jpg").Times(5)) << "once for each property";
    remove();
    EXPECT_THAT(registry_calls, Contains("open 2001F" + handlers));
    EXPECT_THAT(registry_calls, Contains("open 20019 .txt"));
    EXPECT_THAT(registry_calls, Contains("open 2001F" + handlers + R"(\.txt)"));

    const intercepted_import<"IsWow64Process", decltype(IsWow64Process)> wow64{
        program, [](HANDLE, PBOOL answer) {
            *answer = TRUE;
            return std::optional{TRUE};
        }};
    plant_handler(L".jpg", registry_text(FOREIGN));
    install();
    EXPECT_THAT(registry_calls, Contains("open 20019" + handlers + R"(\.txt)")) << "no view for a probe";
    EXPECT_THAT(registry_calls, Contains("create 20106" + handlers + R"(\.txt)"));
    EXPECT_THAT(registry_calls, Contains("create 20006" + lists + ".txt")) << "nor for the lists";
    EXPECT_THAT(registry_calls, Contains("open 2011F" + handlers + R"(\.jpg)"));
    EXPECT_THAT(registry_calls, Contains("open 2011F" + lists + ".jpg").Times(5));
    remove();
    EXPECT_THAT(registry_calls, testing::Each(testing::Not(testing::HasSubstr(" 201"))))
        << "removal leaves the view alone";
}

struct failed_registration {
    const char* name;
    registry_fault fault;
    std::string output; // on standard output
    bool fails;         // whether it counts
};

void PrintTo(const failed_registration& tested, std::ostream* out)
{
    *out << tested.name;
}

class FailedRegistration : public PropertyHandler, public testing::WithParamInterface<failed_registration> {};

TEST_P(FailedRegistration, is_told_and_does_not_fail_the_installation)
{
    plant_handler(L".jpg", registry_text(FOREIGN));
    plant_list(L".jpg", L"InfoTip", L"prop:A");
    plant_list(L".jpg", L"FullDetails", L"prop:System.PropGroup.Description;A");
    planned_fault = GetParam().fault;
    EXPECT_EQ(install(), GetParam().output);
    EXPECT_EQ(
        session.messages().back(),
        (GetParam().fails
             ? posted_message{
                   ERROR_BOX,
                   L"Custom action: propertyhandler_updateregistry: One or more property handler registrations "
                   L"FAILED (see [propertyhandler] output for the specific extension)."}
             : posted_message{
                   LINE, L"Custom action: propertyhandler_updateregistry: Registry updated successfully."}));
    EXPECT_THAT(handler(L".jpg"), testing::AnyOf(registry_text(FOREIGN), registry_text(OURS)))
        << "one or the other, never nothing";
}

const std::string OVERRODE = "[propertyhandler] overrode existing handler for '.jpg' (backup saved)\n";
const std::string NOT_OVERRIDDEN =
    "[propertyhandler] FAILED to override handler for '.jpg' - it is still NOT our CLSID after the write\n"
    "[propertyhandler]   FAILED: .jpg (force override)\n";

// The lines about a key that cannot be opened.
std::string not_opened(const std::string& key, const std::string& purpose)
{
    return "[propertyhandler] FAILED to open '" + key + "\\.jpg' for " + purpose + "\n";
}

const std::string JPG_HANDLER =
    R"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
const std::string JPG_LISTS = R"(SOFTWARE\Classes\SystemFileAssociations)";
const std::string NO_DETAILS = not_opened(JPG_LISTS, "FullDetails update (ACCESS_DENIED if not elevated)");

INSTANTIATE_TEST_SUITE_P(
    Faults,
    FailedRegistration,
    testing::Values(
        failed_registration{
            "create",
            {"create", "PropertyHandlers\\.txt", 0x20006},
            OVERRODE + "[propertyhandler] FAILED fresh install for '.txt'\n"
                       "[propertyhandler]   FAILED: .txt (fresh install)\n",
            true},
        failed_registration{
            "open_denied",
            {"open", "PropertyHandlers\\.jpg", 0x2001F},
            not_opened(JPG_HANDLER, "write: error 5 (ACCESS_DENIED - process is not elevated)") +
                NOT_OVERRIDDEN,
            true},
        failed_registration{
            "open_otherwise",
            {"open", "PropertyHandlers\\.jpg", 0x2001F, ERROR_SHARING_VIOLATION},
            not_opened(JPG_HANDLER, "write: error 32") + NOT_OVERRIDDEN,
            true},
        failed_registration{"backup", {"write", "OriginalPropertyHandler"}, OVERRODE, false},
        failed_registration{"lists", {"create", "SystemFileAssociations\\.txt", 0x20006}, OVERRODE, false},
        failed_registration{"first_list", {"write", "PreviewDetails"}, OVERRODE, false},
        failed_registration{
            "infotip_open",
            {"open", "SystemFileAssociations\\.jpg", 0x2001F},
            OVERRODE + not_opened(JPG_LISTS, "InfoTip update (ACCESS_DENIED if not elevated)") + NO_DETAILS +
                NO_DETAILS + NO_DETAILS + NO_DETAILS,
            false}),
    [](const auto& tested) { return std::string{tested.param.name}; });

TEST_F(PropertyHandler, tells_of_every_write_that_fails)
{
    install();
    plant_list(L".jpg", L"InfoTip", L"prop:A");
    planned_fault = {"write", "InfoTip"};
    EXPECT_THAT(
        install(),
        testing::EndsWith("[propertyhandler] FAILED to append 'System.Calendar.Location' to InfoTip for "
                          "'.jpg': error 5\n"));

    plant_list(
        L".jpg", L"FullDetails", L"prop:System.PropGroup.Description;System.Contact.PrimaryAddressState");
    planned_fault = {"write", "FullDetails"};
    EXPECT_THAT(
        install(),
        testing::EndsWith("[propertyhandler] FAILED to insert 'System.Contact.PrimaryAddressCountry' into "
                          "FullDetails for '.jpg': error 5\n"
                          "[propertyhandler] FAILED to insert 'System.Contact.PrimaryAddressCity' into "
                          "FullDetails for '.jpg': error 5\n"
                          "[propertyhandler] FAILED to insert 'System.Calendar.Location' into FullDetails "
                          "for '.jpg': error 5\n"));

    plant_handler(L".jpg", registry_text(FOREIGN));
    planned_fault = {"write", "", 0, ERROR_ACCESS_DENIED};
    const std::string output = install();
    EXPECT_THAT(
        output,
        testing::HasSubstr(
            "[propertyhandler] FAILED to write default CLSID for '.jpg': error 5\n" + NOT_OVERRIDDEN));
}

TEST_F(PropertyHandler, warns_and_goes_on_where_it_is_not_elevated)
{
    const import_patch<decltype(OpenProcessToken)> no_token{
        GetModuleHandleW(nullptr), "OpenProcessToken", [](HANDLE, DWORD, PHANDLE) -> BOOL { return FALSE; }};
    EXPECT_EQ(
        install(),
        "[propertyhandler] WARNING: not elevated - every HKLM write below will fail. Run build_all.ps1 (or "
        "the "
        "installer) as Administrator.\n");
    EXPECT_EQ(handler(L".zip"), registry_text(OURS));
}

TEST_F(PropertyHandler, tells_a_script_without_a_session_that_it_failed)
{
    planned_fault = {"create", "PropertyHandlers\\.txt"};
    testing::internal::CaptureStdout();
    EXPECT_EQ(register_property_handler(0), 1603U);
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(session.calls(), IsEmpty());
}

TEST_F(PropertyHandler, fails_to_be_removed_where_its_keys_resist)
{
    const posted_message failed{
        ERROR_BOX, L"Custom action: propertyhandler_removeregistry: Failed to update registry."};
    install();
    const auto installed = hive();
    planned_fault = {"open", "PropertyHandlers"};
    remove(1603);
    EXPECT_EQ(session.messages().back(), failed);
    EXPECT_EQ(hive(), installed);

    planned_fault = {"delete", ".txt"};
    remove(1603);
    EXPECT_EQ(session.messages().back(), failed);
    EXPECT_TRUE(handler(L".txt"));
    EXPECT_FALSE(list(L".txt", L"FullDetails")) << "the lists go all the same";
    EXPECT_FALSE(handler(L".zip")) << "and so do the others";

    planned_fault = {"open", "PropertyHandlers", 0, ERROR_FILE_NOT_FOUND};
    remove();
}

TEST_F(PropertyHandler, stops_looking_at_a_name_that_is_longer_than_any_extension)
{
    install();
    const auto installed = hive();
    const import_patch<decltype(RegEnumKeyExA)> patch{
        GetModuleHandleW(nullptr),
        "RegEnumKeyExA",
        [](HKEY, DWORD, LPSTR, LPDWORD, LPDWORD, LPSTR, LPDWORD, PFILETIME) -> LSTATUS {
            return ERROR_MORE_DATA;
        }};
    remove();
    EXPECT_EQ(hive(), installed);
}

TEST_F(PropertyHandler, keeps_a_backup_until_it_is_back_in_its_place)
{
    plant_handler(L".jpg", registry_text(FOREIGN));
    install();
    planned_fault = {"write", ""};
    remove();
    EXPECT_EQ(handler(L".jpg", L"OriginalPropertyHandler"), registry_text(FOREIGN));
    planned_fault.reset();
    remove();
    EXPECT_EQ(handler(L".jpg"), registry_text(FOREIGN));
    EXPECT_FALSE(handler(L".jpg", L"OriginalPropertyHandler"));
}

} // namespace
} // namespace custom_actions
