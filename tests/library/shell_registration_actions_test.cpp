// The shell's actions as the built library exports them: what a failure becomes at the boundary.

#include "tests/support/import_patch.h"
#include "tests/support/loaded_library.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace test_support {
namespace {

using testing::ElementsAre;

constexpr UINT LINE = 0x04000000;
constexpr UINT ERROR_BOX = 0x01000000;

LSTATUS WINAPI no_key(HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY, LPDWORD)
{
    return ERROR_ACCESS_DENIED;
}

LSTATUS WINAPI no_handlers(HKEY, LPCSTR, DWORD, REGSAM, PHKEY)
{
    return ERROR_ACCESS_DENIED;
}

class ShellRegistrationActions : public testing::Test {
protected:
    UINT call(const char* action) { return library.call(action, session.handle()); }

    registry_sandbox machine{HKEY_LOCAL_MACHINE};
    registry_sandbox user{HKEY_CURRENT_USER};
    loaded_library library;
    scripted_session session{library.module()};
};

TEST_F(ShellRegistrationActions, fail_with_one_line_where_the_icon_handler_finds_no_key)
{
    const import_patch<decltype(RegCreateKeyExW)> patch{library.module(), "RegCreateKeyExW", no_key};
    EXPECT_EQ(call("iconhandler_add_defaults_to_registry"), 1603U);
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            posted_message{LINE, L"Custom action: iconhandler_add_defaults_to_registry: Starting..."},
            posted_message{
                LINE,
                L"Custom action: iconhandler_add_defaults_to_registry: Failed to create/open registry key"}));
}

TEST_F(ShellRegistrationActions, fail_with_one_error_where_the_property_handler_cannot_be_removed)
{
    const import_patch<decltype(RegOpenKeyExA)> patch{library.module(), "RegOpenKeyExA", no_handlers};
    EXPECT_EQ(call("propertyhandler_remove_registry"), 1603U);
    EXPECT_EQ(
        session.messages().back(),
        (posted_message{
            ERROR_BOX, L"Custom action: propertyhandler_removeregistry: Failed to update registry."}));
}

TEST_F(ShellRegistrationActions, succeed_on_an_empty_hive_with_and_without_a_session)
{
    for (const char* action :
         {"propertyhandler_update_registry",
          "propertyhandler_remove_registry",
          "iconhandler_add_defaults_to_registry",
          "iconhandler_remove_registry",
          "restore_built_in_new_context_menu",
          "log_app_control_state"}) {
        EXPECT_EQ(call(action), 0U) << action;
        EXPECT_EQ(library.call(action, 0), 0U) << action;
    }
    EXPECT_EQ(session.messages().back().type, LINE);
    EXPECT_THAT(session.messages().back().text, testing::StartsWith(L"Smart App Control: "));
}

} // namespace
} // namespace test_support
