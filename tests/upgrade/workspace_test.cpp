// A workspace that a standard user could have planted must not be trusted.

#include "custom_actions/upgrade/phases.h"
#include "custom_actions/upgrade/workspace.h"
#include "tests/support/faults.h"
#include "tests/support/test_session.h"
#include "tests/support/upgrade_fixture.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace custom_actions::controlled_upgrade {
namespace {

namespace fs = std::filesystem;
using test_support::intercepted_import;
using test_support::thrown_by;

class Workspace : public testing::Test {
protected:
    ~Workspace() override { fs::remove_all(folder); }

    void plant(const std::wstring& name, const char* content = "1") const
    {
        fs::create_directory(folder);
        std::ofstream{folder / name} << content;
    }

    HMODULE program = GetModuleHandleW(nullptr);
    const context upgrade = load_context(test_support::new_upgrade_data(L"C:\\Suite"));
    const fs::path folder = upgrade.workspace;
    test_support::test_session session{program};
    std::wstring owner; // of every file and folder; empty for the real one
    intercepted_import<"GetSecurityInfo", decltype(GetSecurityInfo)> owners{
        program,
        [this](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* found, auto, auto, auto, auto* holder) {
            if (owner.empty()) {
                return std::optional<DWORD>{};
            }
            ConvertStringSidToSidW(owner.c_str(), found);
            *holder = *found;
            return std::optional{DWORD{ERROR_SUCCESS}};
        }};
};

TEST_F(Workspace, is_trusted_only_if_owned_by_the_system_the_administrators_or_this_process)
{
    plant(marker::SHUTDOWN_STARTED);
    const auto trusted = [&] { return has_marker(upgrade, marker::SHUTDOWN_STARTED); };
    EXPECT_TRUE(trusted()) << "owned by this process's user";
    for (const wchar_t* administrative : {L"S-1-5-18", L"S-1-5-32-544"}) {
        owner = administrative;
        EXPECT_TRUE(trusted()) << testing::PrintToString(owner);
    }
    for (const wchar_t* other : {L"S-1-5-21-1-2-3-1001", L"S-1-5-32-545", L"S-1-5-19"}) {
        owner = other;
        EXPECT_FALSE(trusted()) << testing::PrintToString(owner);
        EXPECT_EQ(thrown_by([&] { rollback(session.handle(), upgrade); }), "");
        EXPECT_EQ(
            thrown_by([&] { install_packages(session.handle(), upgrade); }), "Upgrade backup is missing");
        EXPECT_EQ(
            thrown_by([&] { write_marker(upgrade, marker::COMMITTED); }),
            "Cannot persist upgrade recovery state (3)");
    }
    EXPECT_TRUE(session.messages().empty()) << "nothing was undone";
    EXPECT_FALSE(fs::exists(folder / marker::COMMITTED));

    owner.clear();
    const intercepted_import<"GetFileInformationByHandle", decltype(GetFileInformationByHandle)> kind{
        program, [](HANDLE, BY_HANDLE_FILE_INFORMATION* found) {
            found->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
            return std::optional{TRUE};
        }};
    EXPECT_FALSE(trusted()) << "a link to a folder";
}

TEST_F(Workspace, is_absent_if_a_file_and_an_error_if_unreadable)
{
    std::ofstream{folder} << "a file";
    EXPECT_FALSE(has_marker(upgrade, marker::SHUTDOWN_STARTED));
    const auto read = [&] { has_marker(upgrade, marker::SHUTDOWN_STARTED); };
    const std::string unreadable = "Cannot read upgrade recovery state (5)";
    EXPECT_EQ(THROWN_WITH(read, CreateFileW, INVALID_HANDLE_VALUE, {ERROR_ACCESS_DENIED}), unreadable);
    EXPECT_EQ(THROWN_WITH(read, GetFileInformationByHandle, FALSE, {ERROR_ACCESS_DENIED}), unreadable);
}

TEST_F(Workspace, writes_no_marker_through_a_link)
{
    const fs::path other = folder.wstring() + L".other";
    const auto write = [&] { return thrown_by([&] { write_marker(upgrade, marker::COMMITTED); }); };
    const auto content = [](const fs::path& file) {
        std::string line;
        std::ifstream stream{file};
        std::getline(stream, line);
        return line;
    };
    plant(marker::COMMITTED, "longer than a marker");
    EXPECT_EQ(write(), "");
    EXPECT_EQ(content(folder / marker::COMMITTED), "1");

    const std::string refused = "Cannot persist upgrade recovery state (80)";
    std::ofstream{other} << "somebody's";
    fs::remove(folder / marker::COMMITTED);
    fs::create_hard_link(other, folder / marker::COMMITTED);
    EXPECT_EQ(write(), refused);
    EXPECT_EQ(content(other), "somebody's");
    fs::remove(other);

    unsigned queries = 0; // of the folder, then of the marker
    const intercepted_import<"GetFileInformationByHandle", decltype(GetFileInformationByHandle)> kind{
        program, [&](HANDLE, BY_HANDLE_FILE_INFORMATION* found) {
            found->dwFileAttributes = ++queries == 1 ? FILE_ATTRIBUTE_DIRECTORY
                                                     : FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_REPARSE_POINT;
            found->nNumberOfLinks = 1;
            return std::optional{TRUE};
        }};
    EXPECT_EQ(write(), refused);
    EXPECT_EQ(queries, 2U);
}

} // namespace
} // namespace custom_actions::controlled_upgrade
