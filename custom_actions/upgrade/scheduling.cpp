#include "custom_actions/upgrade/scheduling.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/explorer.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"

#include <cwchar>
#include <stdexcept>
#include <string>

#ifdef __MINGW32__
// Its import library has the function, its msi.h has not.
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

// The component whose key path tells where the suite is installed.
constexpr const wchar_t* SUITE_COMPONENT = L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}";

// The one product code that is being upgraded. Several, with semicolons between them, are longer.
std::wstring upgraded_product(MSIHANDLE session)
{
    std::wstring product = read_property(session, L"WIX_UPGRADE_DETECTED");
    if (product.size() != 38) {
        throw std::runtime_error{"Expected one installed product to upgrade"};
    }
    return product;
}

std::wstring installed_folder(const std::wstring& product)
{
    std::wstring path(32768, L'\0');
    auto length = static_cast<DWORD>(path.size());
    if (MsiGetComponentPathExW(
            product.c_str(), SUITE_COMPONENT, nullptr, MSIINSTALLCONTEXT_MACHINE, path.data(), &length) !=
        INSTALLSTATE_LOCAL) {
        throw std::runtime_error{"Cannot resolve the installed product directory"};
    }
    path.resize(std::wcslen(path.c_str()));
    // The key path is the main program, or the folder itself.
    return equal_ignoring_case(file_extension(path), L".exe") ? std::wstring{parent_folder(path)} : path;
}

DWORD installer_session()
{
    const std::wstring record = explorer_session_record();
    if (record == UNCHANGED_EXPLORER) {
        throw std::runtime_error{"Sign into the desktop before upgrading Quorbel"};
    }
    return parse_unsigned(record.substr(0, record.find(L'|')));
}

// The SID of whoever owns the desktop of the session.
std::wstring explorer_owner(DWORD session)
{
    for (const DWORD explorer : find_processes_by_image({L"explorer.exe"}, listing::lenient)) {
        DWORD found = 0;
        if (!ProcessIdToSessionId(explorer, &found) || found != session) {
            continue;
        }
        const kernel_handle process{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, explorer)};
        kernel_handle token;
        if (!process || !OpenProcessToken(process.get(), TOKEN_QUERY, token.put())) {
            throw_last_error("Cannot capture original Explorer user");
        }
        return token_user_sid(token.get());
    }
    throw std::runtime_error{"Cannot identify original interactive user"};
}

void hand_to_phases(MSIHANDLE session, const std::wstring& data)
{
    for (const wchar_t* phase :
         {L"begin_controlled_upgrade",
          L"install_upgrade_packages",
          L"rollback_controlled_upgrade",
          L"finish_controlled_upgrade"}) {
        if (const UINT result = MsiSetPropertyW(session, phase, data.c_str()); result != ERROR_SUCCESS) {
            throw windows_error{"Cannot schedule upgrade recovery", result};
        }
    }
}

} // namespace

void prepare(MSIHANDLE session)
{
    if (!read_property(session, L"RollbackDisabled").empty()) {
        throw std::runtime_error{"Controlled upgrade requires Windows Installer rollback"};
    }
    const std::wstring folder = installed_folder(upgraded_product(session));
    if (const UINT result = MsiSetTargetPathW(session, L"INSTALLFOLDER", folder.c_str());
        result != ERROR_SUCCESS) {
        throw windows_error{"Cannot preserve installed product directory", result};
    }
    const DWORD session_id = installer_session();
    const std::wstring user_sid = explorer_owner(session_id);
    const std::wstring transaction =
        new_guid("Cannot identify upgrade transaction", "Cannot format upgrade transaction");
    const std::wstring data =
        format_context(read_property(session, L"INSTALLFOLDER"), session_id, user_sid, transaction);
    load_context(data); // what the phases could not read is refused here
    hand_to_phases(session, data);
}

} // namespace custom_actions::controlled_upgrade
