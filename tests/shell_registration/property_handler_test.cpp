// Registration and removal of the property handler, on a machine hive of the tests' own.

#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "support/registry_sandbox.h"
#include "tests/support/failing_import.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace test_support {
namespace {

constexpr const wchar_t* BACKUP = L"OriginalPropertyHandler";
const std::string FOREIGN = registry_text(L"{11111111-2222-3333-4444-555555555555}");
const std::string OURS = registry_text(L"{73A6EEEE-36B5-4536-A731-8F92EF883087}");
const std::string OURS_IN_OTHER_LETTERS = registry_text(L"{73a6eeee-36b5-4536-a731-8f92ef883087}");
const std::string HANDLERS = R"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";
const std::string TYPES = R"(SOFTWARE\Classes\SystemFileAssociations)";

void plant(const std::string& path, const wchar_t* name, std::string_view bytes, DWORD type = REG_SZ)
{
    plant_value(HKEY_LOCAL_MACHINE, {path.begin(), path.end()}, name, bytes, type);
}

std::optional<std::string> value(const std::string& path, const wchar_t* name = L"")
{
    return planted_value(HKEY_LOCAL_MACHINE, {path.begin(), path.end()}, name);
}

class PropertyHandler : public testing::Test {
protected:
    // Each returns what the action wrote to standard output.
    std::string install() { return run(custom_actions::register_property_handler, session.handle(), 0); }

    std::string remove(UINT expected = 0)
    {
        return run(custom_actions::remove_property_handler, session.handle(), expected);
    }

    std::string run(UINT (*action)(MSIHANDLE), MSIHANDLE handle, UINT expected)
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(action(handle), expected);
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    std::vector<std::pair<std::string, REGSAM>> refused; // keys that cannot be opened with this access
    LSTATUS refusal = ERROR_ACCESS_DENIED;
    registry_sandbox machine{HKEY_LOCAL_MACHINE};
    scripted_session session{GetModuleHandleW(nullptr)};
    intercepted_import<"RegOpenKeyExA", decltype(RegOpenKeyExA)> opens{
        GetModuleHandleW(nullptr), [this](HKEY, LPCSTR path, DWORD, REGSAM access, PHKEY) {
            const std::pair asked{std::string{path}, access};
            const bool refuses = std::ranges::find(refused, asked) != refused.end();
            return refuses ? std::optional{refusal} : std::nullopt;
        }};
};

TEST_F(PropertyHandler, is_registered_once_with_its_lists)
{
    plant(HANDLERS + "\\.bmp", L"", FOREIGN);
    install();
    EXPECT_EQ(value(TYPES + "\\.bmp", L"InfoTip"), std::nullopt) << "nor any list beside a former handler";
    EXPECT_EQ(
        value(TYPES + "\\.mp3", L"PreviewDetails"),
        registry_text(L"prop:System.ItemType;System.Comment;System.Keywords;System.Rating;System.Size"));
    const std::wstring infotip =
        L"prop:System.ItemType;System.Keywords;System.Rating;System.Comment;System.Size";
    EXPECT_EQ(value(TYPES + "\\.mp3", L"InfoTip"), registry_text(infotip));
    EXPECT_EQ(value(TYPES + "\\.jpg", L"InfoTip"), registry_text(infotip + L";System.Calendar.Location"));
    const auto& list = custom_actions::FULL_DETAILS_LIST;
    std::wstring details{list.begin(), list.end()};
    EXPECT_EQ(value(TYPES + "\\.mp3", L"FullDetails"), registry_text(details));
    details.insert(
        details.find(L"System.Rating"),
        L"System.Calendar.Location;System.Contact.PrimaryAddressCity;System.Contact.PrimaryAddressState;"
        L"System.Contact.PrimaryAddressCountry;");
    EXPECT_EQ(value(TYPES + "\\.jpg", L"FullDetails"), registry_text(details));

    const auto installed = dump_registry(HKEY_LOCAL_MACHINE);
    install();
    EXPECT_EQ(dump_registry(HKEY_LOCAL_MACHINE), installed);
}

TEST_F(PropertyHandler, gives_back_the_first_text_that_it_replaced)
{
    const std::string long_text = registry_text(std::wstring(1500, L'x'));

    struct {
        std::string replaced;
        DWORD type;
        std::string restored;
    } const cases[]{
        {OURS_IN_OTHER_LETTERS, REG_SZ, OURS_IN_OTHER_LETTERS},
        {long_text, REG_SZ, long_text},
        {FOREIGN.substr(0, 76), REG_SZ, FOREIGN}, // without its terminating zero
        {{"\1\0\2\3", 4}, REG_BINARY, {"\1\0\0\0\2\0\3\0\0\0", 10}},
    };

    for (const auto& [replaced, type, restored] : cases) {
        plant(HANDLERS + "\\.jpg", L"", replaced, type);
        install();
        EXPECT_EQ(value(HANDLERS + "\\.jpg"), OURS);
        plant(HANDLERS + "\\.jpg", L"", registry_text(L"newer"));
        install();
        remove();
        EXPECT_EQ(value(HANDLERS + "\\.jpg"), restored);
        EXPECT_EQ(value(HANDLERS + "\\.jpg", BACKUP), std::nullopt);
    }
}

TEST_F(PropertyHandler, leaves_the_hive_as_it_was)
{
    const std::wstring list = L"prop:System.PropGroup.Description;My.Own";
    for (const char* type : {"\\.arw", "\\.heic", "\\.jpeg", "\\.tif"}) {
        plant(HANDLERS + type, L"", FOREIGN);
    }
    plant(TYPES + "\\.arw", L"InfoTip", registry_text(list));
    plant(TYPES + "\\.arw", L"FullDetails", registry_text(list));
    plant(TYPES + "\\.heic", L"InfoTip", registry_text(list + L'\0' + list)); // not to be understood
    plant(TYPES + "\\.heic", L"FullDetails", registry_text(list), REG_MULTI_SZ);
    plant(TYPES + "\\.jpeg", L"FullDetails", registry_text(L"prop:My.Own"));
    plant(TYPES + "\\.tif", L"InfoTip", registry_text(L""));
    plant(TYPES + "\\.txt", L"Other", registry_text(L"a value of somebody's"));
    plant(HANDLERS + "\\.xyz", L"", OURS_IN_OTHER_LETTERS);
    const auto before = dump_registry(HKEY_LOCAL_MACHINE);
    install();
    EXPECT_EQ(value(TYPES + "\\.arw", L"InfoTip"), registry_text(list + L";System.Calendar.Location"));
    EXPECT_EQ(value(TYPES + "\\.tif", L"InfoTip"), registry_text(L""));
    plant(HANDLERS + "\\.unknown", L"", OURS);
    remove();
    EXPECT_EQ(dump_registry(HKEY_LOCAL_MACHINE), before);
}

TEST_F(PropertyHandler, keeps_the_lists_that_the_user_edited)
{
    struct {
        const char* type;
        const wchar_t* edited;
        const wchar_t* kept;
    } const lists[]{
        {"\\.txt", L"prop:My.Own", L"prop:My.Own"},
        {"\\.jpg", L"prop:A;System.Calendar.Location;B", L"prop:A;B"},
        {"\\.jpeg", L"System.Calendar.Location;B", L"B"},
        {"\\.tif", L"System.Calendar.Location", L""},
    };

    install();
    for (const auto& [type, edited, kept] : lists) {
        plant(TYPES + type, L"InfoTip", registry_text(edited));
    }
    remove();
    for (const auto& [type, edited, kept] : lists) {
        EXPECT_EQ(value(HANDLERS + type), std::nullopt);
        EXPECT_EQ(value(TYPES + type, L"InfoTip"), registry_text(kept));
    }
    EXPECT_EQ(value(TYPES + "\\.txt", L"FullDetails"), std::nullopt);
}

TEST_F(PropertyHandler, tells_of_what_fails_and_does_not_fail_the_installation)
{
    plant(HANDLERS + "\\.bmp", L"", FOREIGN);
    plant(HANDLERS + "\\.txt", L"", FOREIGN);
    refused = {{HANDLERS + "\\.bmp", 0x2001F}, {HANDLERS + "\\.txt", 0x20019}};
    const std::string prefix = "[propertyhandler] ";
    EXPECT_THAT(
        install(),
        testing::EndsWith(
            prefix + "FAILED to open '" + HANDLERS +
            "\\.bmp' for write: error 5 (ACCESS_DENIED - process is not elevated)\n" + prefix +
            "FAILED to override handler for '.bmp' - it is still NOT our CLSID after the write\n" + prefix +
            "FAILED fresh install for '.txt'\n" + prefix + "  FAILED: .bmp (force override)\n" + prefix +
            "  FAILED: .txt (fresh install)\n"));
    EXPECT_EQ(
        session.messages().back(),
        (posted_message{
            0x01000000,
            L"Custom action: propertyhandler_updateregistry: One or more property handler registrations "
            L"FAILED (see [propertyhandler] output for the specific extension)."}));
    EXPECT_EQ(value(HANDLERS + "\\.bmp"), FOREIGN);
    EXPECT_EQ(value(HANDLERS + "\\.txt"), FOREIGN) << "what cannot be read stays";
    run(custom_actions::register_property_handler, 0, 1603);

    refused = {{TYPES + "\\.webp", 0x2001F}};
    EXPECT_THAT(
        install(),
        testing::EndsWith(
            "FAILED to open '" + TYPES +
            "\\.webp' for FullDetails update (ACCESS_DENIED if not elevated)\n"));
    EXPECT_EQ(session.messages().back().type, 0x04000000U) << "which does not count";
}

TEST_F(PropertyHandler, fails_to_be_removed_where_its_keys_resist)
{
    install();
    const auto installed = dump_registry(HKEY_LOCAL_MACHINE);
    refused = {{HANDLERS, 0x2001F}};
    remove(1603);
    refusal = ERROR_FILE_NOT_FOUND;
    remove();
    EXPECT_EQ(dump_registry(HKEY_LOCAL_MACHINE), installed);

    refused.clear();
    const failing_import<"RegDeleteKeyA", decltype(RegDeleteKeyA)> fault{
        GetModuleHandleW(nullptr), ERROR_ACCESS_DENIED, {.last_error = 0}};
    remove(1603);
    EXPECT_EQ(
        session.messages().back(),
        (posted_message{
            0x01000000, L"Custom action: propertyhandler_removeregistry: Failed to update registry."}));
    EXPECT_EQ(value(HANDLERS + "\\.arw"), OURS);
    EXPECT_EQ(value(TYPES + "\\.arw", L"FullDetails"), std::nullopt) << "the lists go all the same";
    EXPECT_EQ(value(HANDLERS + "\\.zip"), std::nullopt) << "and so do the others";
}

} // namespace
} // namespace test_support
