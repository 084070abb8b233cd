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

// Copies the files of one folder over those of another; false where anything fails. What is in use there is
// set aside first, as Windows does.
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
    std::error_code none;
    std::filesystem::remove_all(saved_files(), none); // of an earlier upgrade
    const bool done = copy_files(read_property(session, L"CustomActionData"), saved_files());
    return done ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// Rollback: the files are then as they were, where they were saved at all.
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

} // extern "C"
