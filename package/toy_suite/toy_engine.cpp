// Custom actions of package/rehearsal.wxs. They do on Wine what only Windows' engine does in an upgrade: find
// a component of a per-machine product, tell the old version's session that an upgrade removes it, and put
// the old version's files back in a rollback. One more cancels the session as a user would.

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace {

// The old version's session reads the property UPGRADINGPRODUCTCODE from here.
constexpr const wchar_t* ENGINE_STATE = LR"(Software\QuorbelStandIn\Engine)";

std::wstring read_property(MSIHANDLE session, const wchar_t* name)
{
    std::wstring value(MAX_PATH, L'\0');
    auto length = static_cast<DWORD>(value.size());
    const bool read = MsiGetPropertyW(session, name, value.data(), &length) == ERROR_SUCCESS;
    value.resize(read ? length : 0);
    return value;
}

std::filesystem::path saved_files()
{
    std::error_code none;
    return std::filesystem::temp_directory_path(none) / L"quorbel-files-before-upgrade";
}

// Copies the files of one folder over those of another; false if anything fails. A file in use is renamed
// first, as Windows does.
bool copy_files(const std::filesystem::path& from, const std::filesystem::path& to)
{
    std::error_code failure;
    std::filesystem::create_directories(to, failure);
    for (const auto& file : std::filesystem::directory_iterator{from, failure}) {
        const std::filesystem::path copy = to / file.path().filename();
        if (!std::filesystem::remove(copy, failure) && failure) {
            std::filesystem::rename(copy, copy.wstring() + L".in-use", failure);
        }
        std::filesystem::copy_file(file.path(), copy, failure);
        if (failure) {
            return false;
        }
    }
    return !failure;
}

} // namespace

extern "C" {

// Missing from MinGW's msi.h.
INSTALLSTATE WINAPI MsiGetComponentPathExW(LPCWSTR, LPCWSTR, LPCWSTR, MSIINSTALLCONTEXT, LPWSTR, LPDWORD);

__declspec(dllexport) UINT __stdcall find_installed_folder(MSIHANDLE session);
__declspec(dllexport) UINT __stdcall save_files(MSIHANDLE session);
__declspec(dllexport) UINT __stdcall put_files_back(MSIHANDLE session);
__declspec(dllexport) UINT __stdcall old_version_is_gone(MSIHANDLE session);
__declspec(dllexport) UINT __stdcall cancel(MSIHANDLE session);

// Immediate: sets what a search for the component's folder finds on Windows.
UINT __stdcall find_installed_folder(MSIHANDLE session)
{
    wchar_t key_path[MAX_PATH]{};
    DWORD length = MAX_PATH;
    const INSTALLSTATE state = MsiGetComponentPathExW(
        read_property(session, L"OLDER_VERSION_FOUND").c_str(),
        L"{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}",
        nullptr,
        MSIINSTALLCONTEXT_MACHINE,
        key_path,
        &length);
    const std::wstring folder = std::filesystem::path{key_path}.parent_path().wstring() + L'\\';
    const bool done = state == INSTALLSTATE_LOCAL &&
                      MsiSetPropertyW(session, L"QBL_INSTALLED_FOLDER", folder.c_str()) == ERROR_SUCCESS;
    return done ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// Deferred, with the installed folder as its data. The last action before the old version is removed, so that
// nothing can fail in between.
UINT __stdcall save_files(MSIHANDLE session)
{
    std::error_code none;
    std::filesystem::remove_all(saved_files(), none); // of an earlier upgrade
    constexpr wchar_t upgrading[] = L"an upgrade";
    const bool done =
        copy_files(read_property(session, L"CustomActionData"), saved_files()) &&
        RegSetKeyValueW(
            HKEY_CURRENT_USER, ENGINE_STATE, L"UpgradingProductCode", REG_SZ, upgrading, sizeof upgrading) ==
            ERROR_SUCCESS;
    return done ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// Immediate.
UINT __stdcall old_version_is_gone(MSIHANDLE /*session*/)
{
    return RegDeleteTreeW(HKEY_CURRENT_USER, ENGINE_STATE) == ERROR_SUCCESS ? ERROR_SUCCESS
                                                                            : ERROR_INSTALL_FAILURE;
}

// Rollback, with the same data: puts the files back if they were saved.
UINT __stdcall put_files_back(MSIHANDLE session)
{
    std::error_code none;
    if (!std::filesystem::exists(saved_files(), none)) {
        return ERROR_SUCCESS;
    }
    const bool done = copy_files(saved_files(), read_property(session, L"CustomActionData"));
    std::filesystem::remove_all(saved_files(), none);
    return done ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// Immediate.
UINT __stdcall cancel(MSIHANDLE /*session*/)
{
    return ERROR_INSTALL_USEREXIT;
}

} // extern "C"
