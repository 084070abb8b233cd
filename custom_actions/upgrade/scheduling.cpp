#include "custom_actions/upgrade/scheduling.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"

#include <algorithm>
#include <cwchar>
#include <optional>
#include <stdexcept>
#include <string>

#ifdef __MINGW32__
// Its import library has the function; its msi.h has no prototype.
extern "C" INSTALLSTATE WINAPI MsiGetComponentPathExW(
    LPCWSTR product,
    LPCWSTR component,
    LPCWSTR user_sid,
    MSIINSTALLCONTEXT context,
    LPWSTR path,
    LPDWORD size);
#endif

namespace custom_actions::controlled_upgrade {
namespace {

// The component whose key path is where the suite is installed.
constexpr DWORD LONGEST_PATH = 32768;           // characters
constexpr std::size_t PRODUCT_CODE_LENGTH = 38; // characters, with its braces
constexpr const wchar_t* SUITE_COMPONENT = L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}";

// The one product code that is being upgraded. Several, with semicolons between them, are longer.
std::wstring upgraded_product(MSIHANDLE session)
{
    std::wstring product = read_property(session, L"WIX_UPGRADE_DETECTED");
    if (product.size() != PRODUCT_CODE_LENGTH) {
        throw std::runtime_error{"Expected one installed product to upgrade"};
    }
    return product;
}

std::wstring installed_folder(const std::wstring& product)
{
    std::wstring path(LONGEST_PATH, L'\0');
    DWORD length = LONGEST_PATH;
    if (MsiGetComponentPathExW(
            product.c_str(), SUITE_COMPONENT, nullptr, MSIINSTALLCONTEXT_MACHINE, path.data(), &length) !=
        INSTALLSTATE_LOCAL) {
        throw std::runtime_error{"Cannot resolve the installed product directory"};
    }
    path.resize(std::wcslen(path.c_str()));
    // The key path is the main program, or the folder itself.
    return equal_ignoring_case(file_extension(path), L".exe") ? std::wstring{parent_folder(path)} : path;
}

// The session of whoever installs.
DWORD installer_session()
{
    const std::optional<explorer_session> found = find_explorer_session();
    if (!found) {
        throw std::runtime_error{"Sign into the desktop before upgrading Quorbel"};
    }
    return found->session;
}

// The SID of whoever owns the session's desktop.
std::wstring explorer_owner(DWORD session)
{
    constexpr const char* failure = "Cannot capture original Explorer user";
    const process_list explorers = find_processes_by_image(EXPLORER_IMAGES, listing::lenient);
    const auto explorer = std::ranges::find_if(
        explorers, [session](DWORD process) { return runs_in_session(process, session); });
    if (explorer == explorers.end()) {
        throw std::runtime_error{"Cannot identify original interactive user"};
    }
    const kernel_handle process{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, *explorer)};
    check_bool(process, failure);
    return process_user_sid(process.get(), failure);
}

void hand_to_phases(MSIHANDLE session, const std::wstring& data)
{
    for (const wchar_t* phase :
         {L"begin_controlled_upgrade",
          L"install_upgrade_packages",
          L"rollback_controlled_upgrade",
          L"finish_controlled_upgrade"}) {
        set_property(session, phase, data, "Cannot schedule upgrade recovery");
    }
}

} // namespace

void prepare(MSIHANDLE session)
{
    if (!read_property(session, L"RollbackDisabled").empty()) {
        throw std::runtime_error{"Controlled upgrade requires Windows Installer rollback"};
    }
    const std::wstring folder = installed_folder(upgraded_product(session));
    check_win32(
        MsiSetTargetPathW(session, L"INSTALLFOLDER", folder.c_str()),
        "Cannot preserve installed product directory");
    const DWORD session_id = installer_session();
    const std::wstring user_sid = explorer_owner(session_id);
    const std::wstring transaction =
        new_guid("Cannot identify upgrade transaction", "Cannot format upgrade transaction");
    const std::wstring data =
        format_context(read_property(session, L"INSTALLFOLDER"), session_id, user_sid, transaction);
    load_context(data); // refuses now what the phases could not read
    hand_to_phases(session, data);
}

} // namespace custom_actions::controlled_upgrade
