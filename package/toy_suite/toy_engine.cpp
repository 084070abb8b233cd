// What Wine's installer engine leaves out of a rollback: it does not put back the files of the version that
// an upgrade has removed. These actions of the sample package do, where the engine is Wine's; Windows does it
// by itself.

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace {

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

// The first of the two without what was in it before; false where anything fails.
bool copy_folder(const std::filesystem::path& to, const std::filesystem::path& from)
{
    std::error_code failure;
    std::filesystem::remove_all(to, failure);
    if (!failure) {
        std::filesystem::copy(from, to, std::filesystem::copy_options::recursive, failure);
    }
    return !failure;
}

} // namespace

extern "C" {

__declspec(dllexport) UINT __stdcall prepare_file_rollback(MSIHANDLE session);
__declspec(dllexport) UINT __stdcall save_files(MSIHANDLE session);
__declspec(dllexport) UINT __stdcall put_files_back(MSIHANDLE session);

// Immediate: tells the other two which folder it is.
UINT __stdcall prepare_file_rollback(MSIHANDLE session)
{
    const std::wstring folder = read_property(session, L"INSTALLFOLDER");
    const bool told = MsiSetPropertyW(session, L"save_files", folder.c_str()) == ERROR_SUCCESS &&
                      MsiSetPropertyW(session, L"put_files_back", folder.c_str()) == ERROR_SUCCESS;
    return told ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// Deferred: before the old version's files go.
UINT __stdcall save_files(MSIHANDLE session)
{
    return copy_folder(saved_files(), read_property(session, L"CustomActionData")) ? ERROR_SUCCESS
                                                                                   : ERROR_INSTALL_FAILURE;
}

// Rollback: the folder is then as it was, where it was saved at all.
UINT __stdcall put_files_back(MSIHANDLE session)
{
    std::error_code none;
    if (!std::filesystem::exists(saved_files(), none)) {
        return ERROR_SUCCESS;
    }
    const bool done = copy_folder(read_property(session, L"CustomActionData"), saved_files());
    std::filesystem::remove_all(saved_files(), none);
    return done ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // extern "C"
