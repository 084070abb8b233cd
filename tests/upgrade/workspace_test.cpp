// A workspace that a standard user could have planted must not be trusted.

#include "custom_actions/upgrade/workspace.h"
#include "tests/support/faults.h"
#include "tests/support/test_session.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

namespace fs = std::filesystem;
using test_support::fail_with;
using test_support::import_hook;
using test_support::thrown_by;
using test_support::thrown_with;

class Workspace : public testing::Test {
protected:
    Workspace() { fs::create_directory(folder); }

    ~Workspace() override { fs::remove_all(folder); }

    HMODULE program = GetModuleHandleW(nullptr);
    const context upgrade = load_context(test_support::new_upgrade_data(L"C:\\Suite"));
    const fs::path folder = upgrade.workspace;
    const std::function<void()> read = [this] { has_marker(upgrade, marker::COMMITTED); };
    const std::function<void()> write = [this] { write_marker(upgrade, marker::COMMITTED); };
    const std::string refused = "Cannot persist upgrade recovery state (80)";
};

TEST_F(Workspace, is_trusted_only_if_a_folder_of_the_system_the_administrators_or_this_process)
{
    EXPECT_EQ(thrown_by(write), "") << "owned by this process's user";
    const wchar_t* owner = nullptr; // of every file and folder
    const import_hook owners{
        program,
        "GetSecurityInfo",
        [&](HANDLE, int, DWORD, PSID* found, void*, void*, void*, PSECURITY_DESCRIPTOR* holder) {
            ConvertStringSidToSidW(owner, found);
            *holder = *found;
            return ERROR_SUCCESS;
        }};
    for (const wchar_t* administrative : {L"S-1-5-18", L"S-1-5-32-544"}) {
        owner = administrative;
        EXPECT_TRUE(has_marker(upgrade, marker::COMMITTED)) << testing::PrintToString(owner);
    }
    for (const wchar_t* other : {L"S-1-5-21-1-2-3-1001", L"S-1-5-32-545", L"S-1-5-19"}) {
        owner = other;
        EXPECT_FALSE(has_marker(upgrade, marker::COMMITTED)) << testing::PrintToString(owner);
        EXPECT_EQ(thrown_by(write), "Cannot persist upgrade recovery state (3)");
    }
    const auto unreadable =
        thrown_with("CreateFileW", fail_with(~test_support::word{0}, ERROR_ACCESS_DENIED), read);
    EXPECT_EQ(unreadable, "Cannot read upgrade recovery state (5)");
    fs::remove_all(folder);
    std::ofstream{folder} << "a file";
    EXPECT_FALSE(has_marker(upgrade, marker::COMMITTED)) << "below a file";
}

TEST_F(Workspace, is_not_used_through_links)
{
    std::ofstream{folder / L"other"} << "somebody's";
    fs::create_hard_link(folder / L"other", folder / marker::COMMITTED);
    EXPECT_EQ(thrown_by(write), refused);
    EXPECT_EQ(fs::file_size(folder / L"other"), 10U) << "it was overwritten";
    fs::remove(folder / L"other");
    EXPECT_EQ(thrown_by(write), "");
    EXPECT_EQ(fs::file_size(folder / marker::COMMITTED), 1U) << "of an older marker";

    std::vector<DWORD> kinds{FILE_ATTRIBUTE_REPARSE_POINT, FILE_ATTRIBUTE_DIRECTORY}; // the last is next
    const import_hook links{
        program, "GetFileInformationByHandle", [&](HANDLE, BY_HANDLE_FILE_INFORMATION* found) {
            found->dwFileAttributes = kinds.back();
            found->nNumberOfLinks = 1;
            kinds.pop_back();
            return TRUE;
        }};
    EXPECT_EQ(thrown_by(write), refused) << "a link to a file";
    kinds = {FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT};
    EXPECT_FALSE(has_marker(upgrade, marker::COMMITTED)) << "a link to a folder";
}

} // namespace
} // namespace custom_actions::controlled_upgrade
