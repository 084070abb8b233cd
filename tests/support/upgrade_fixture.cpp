#include "tests/support/upgrade_fixture.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "support/ascii.h"
#include "support/child_process.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace test_support {
namespace {

namespace fs = std::filesystem;

constexpr const wchar_t* PROGRAMS[]{
    L"Quorbel.exe",
    L"Quorbel.Comment.exe",
    L"Quorbel.HotkeyHandler.exe",
    L"Quorbel.Kindra.HelperService.exe",
    L"Quorbel.AutoTagging.Service.exe",
    L"Quorbel.SystemTray.exe",
};

void end_suite()
{
    for (const wchar_t* program : PROGRAMS) {
        end_programs(program);
    }
}

} // namespace

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
    : folder_{fs::temp_directory_path() / (L"O'Brien & S\u00FCite $(" + std::to_wstring(GetCurrentProcessId()) + L")")},
      data_{new_upgrade_data(folder_)}, context_{custom_actions::controlled_upgrade::load_context(data_)}
{
    end_suite();
    fs::remove_all(folder_); // a killed process may have left one with the same id
    fs::create_directories(folder_);
    for (const wchar_t* name : PROGRAMS) {
        fs::copy_file(beside_this_program(L"toy_program.exe"), program(name));
    }
    copy_packages(L"1.5.0");
    powershell.register_package(L"Sorvane.Icon", L"1.5.0.0");
    powershell.register_package(L"Quorbel.Paste", L"1.4.0.0");
}

upgrade_fixture::~upgrade_fixture()
{
    end_suite();
    custom_actions::controlled_upgrade::upgrade_guard(false);
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
    fs::remove_all(context_.workspace, ignored);
}

void upgrade_fixture::copy_packages(const std::wstring& version) const
{
    fs::copy(
        beside_this_program(L"package\\" + version),
        folder_,
        fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

std::vector<std::string> upgrade_fixture::markers() const
{
    std::vector<std::string> found;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator{context_.workspace, none}) {
        if (entry.is_regular_file() && entry.path().extension() != L".msix") {
            found.push_back(as_ascii(entry.path().filename().native()));
        }
    }
    std::ranges::sort(found);
    return found;
}

} // namespace test_support
