#include "custom_actions/upgrade/workspace.h"

#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/token.h"

#include <aclapi.h>
#include <sddl.h>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr const char* READ_FAILURE = "Cannot read upgrade recovery state";
constexpr const char* WRITE_FAILURE = "Cannot persist upgrade recovery state";

bool is_not_found(DWORD code) noexcept
{
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
}

BY_HANDLE_FILE_INFORMATION information_of(const kernel_handle& file, const char* failure)
{
    BY_HANDLE_FILE_INFORMATION information{};
    check_bool(GetFileInformationByHandle(file.get(), &information), failure);
    return information;
}

// Whether the owner is the system, the administrators, or the user of our own process: what we make belongs
// to one of them.
bool is_trusted_owner(PSID owner)
{
    const std::wstring sid = sid_text(owner, READ_FAILURE);
    return sid == L"S-1-5-18" || sid == L"S-1-5-32-544" || sid == token_user_sid(GetCurrentProcessToken());
}

// Whether the workspace is there and is one that we made. The user can know its name, and anybody may make a
// folder in the Windows directory's Temp.
bool workspace_is_ours(const context& context)
{
    constexpr DWORD access = READ_CONTROL | FILE_READ_ATTRIBUTES;
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    constexpr DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;
    const kernel_handle folder{
        CreateFileW(context.workspace.c_str(), access, share, nullptr, OPEN_EXISTING, flags, nullptr)};
    if (!folder && is_not_found(GetLastError())) {
        return false;
    }
    check_bool(folder, READ_FAILURE);
    constexpr DWORD kinds = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    if ((information_of(folder, READ_FAILURE).dwFileAttributes & kinds) != FILE_ATTRIBUTE_DIRECTORY) {
        return false;
    }
    constexpr SECURITY_INFORMATION what = OWNER_SECURITY_INFORMATION;
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    check_win32(
        GetSecurityInfo(folder.get(), SE_FILE_OBJECT, what, &owner, nullptr, nullptr, nullptr, &descriptor),
        READ_FAILURE);
    const local_memory holder{descriptor};
    return is_trusted_owner(owner);
}

} // namespace

void create_secure_directory(const std::wstring& path, const std::wstring& user_sid, user_access access)
{
    const std::wstring rights = access == user_access::full ? L"FA" : L"GRGX";
    const std::wstring text =
        L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;" + rights + L";;;" + user_sid + L")";
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    check_bool(
        ConvertStringSecurityDescriptorToSecurityDescriptorW(
            text.c_str(), SDDL_REVISION_1, &descriptor, nullptr),
        "Cannot secure recovery directory");
    const local_memory owner{descriptor};
    SECURITY_ATTRIBUTES attributes{
        .nLength = sizeof attributes, .lpSecurityDescriptor = descriptor, .bInheritHandle = FALSE};
    check_bool(CreateDirectoryW(path.c_str(), &attributes), "Cannot create unique recovery directory");
}

void write_marker(const context& context, const std::wstring& name)
{
    if (!workspace_is_ours(context)) {
        throw windows_error{WRITE_FAILURE, ERROR_PATH_NOT_FOUND};
    }
    // Opens a link itself and not what it leads to.
    constexpr DWORD flags = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT;
    const std::wstring path = join_path(context.workspace, name);
    kernel_handle file{
        CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, flags, nullptr)};
    check_bool(file, WRITE_FAILURE);
    const BY_HANDLE_FILE_INFORMATION found = information_of(file, WRITE_FAILURE);
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || found.nNumberOfLinks != 1) {
        throw windows_error{WRITE_FAILURE, ERROR_FILE_EXISTS};
    }
    DWORD written = 0;
    check_bool(
        WriteFile(file.get(), "1", 1, &written, nullptr) && written == 1 && SetEndOfFile(file.get()) &&
            CloseHandle(file.release()),
        WRITE_FAILURE);
}

bool has_marker(const context& context, const std::wstring& name)
{
    if (!workspace_is_ours(context)) {
        return false;
    }
    if (GetFileAttributesW(join_path(context.workspace, name).c_str()) != INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    check_bool(is_not_found(GetLastError()), READ_FAILURE);
    return false;
}

std::wstring folder_list_path(const context& context)
{
    return join_path(context.workspace, LR"(output\folders.xml)");
}

} // namespace custom_actions::controlled_upgrade
