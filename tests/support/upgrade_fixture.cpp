#include "tests/support/upgrade_fixture.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/processes/token.h"
#include "support/child_process.h"

#include <filesystem>
#include <system_error>

namespace test_support {

namespace fs = std::filesystem;

std::wstring new_upgrade_data(const std::wstring& product_directory)
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return custom_actions::controlled_upgrade::format_context(
        product_directory,
        session,
        custom_actions::token_user_sid(GetCurrentProcessToken()),
        custom_actions::new_guid("no transaction", "no transaction"));
}

upgrade_fixture::upgrade_fixture()
    : context_{custom_actions::controlled_upgrade::load_context(
          new_upgrade_data(fs::temp_directory_path() / L"O'Brien & S\u00FCite $(1)"))}
{
    fs::remove_all(context_.product_directory); // a killed process may have left one
    fs::copy(beside_this_program(L"package\\1.5.0"), context_.product_directory, fs::copy_options::recursive);
    fs::create_directories(context_.workspace + L"\\output");
}

upgrade_fixture::~upgrade_fixture()
{
    std::error_code ignored;
    fs::remove_all(context_.product_directory, ignored);
    fs::remove_all(context_.workspace, ignored);
}

} // namespace test_support
