#include "custom_actions/upgrade/workspace.h"

#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <sddl.h>

namespace custom_actions::controlled_upgrade {

void create_secure_directory(const std::wstring& path, const std::wstring& user_sid, user_access access)
{
    const std::wstring rights = access == user_access::full ? L"FA" : L"GRGX";
    const std::wstring text =
        L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;" + rights + L";;;" + user_sid + L")";
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(
            text.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
        throw_last_error("Cannot secure recovery directory");
    }
    const local_memory owner{descriptor};
    SECURITY_ATTRIBUTES attributes{
        .nLength = sizeof attributes, .lpSecurityDescriptor = descriptor, .bInheritHandle = FALSE};
    if (!CreateDirectoryW(path.c_str(), &attributes)) {
        throw_last_error("Cannot create unique recovery directory");
    }
}

void write_marker(const context& context, const std::wstring& name)
{
    kernel_handle file{CreateFileW(
        join_path(context.workspace, name).c_str(),
        GENERIC_WRITE,
        FILE_SHARE_READ,
        nullptr,
        CREATE_ALWAYS,
        FILE_ATTRIBUTE_NORMAL,
        nullptr)};
    DWORD written = 0;
    if (!file || !WriteFile(file.get(), "1", 1, &written, nullptr) || written != 1 ||
        !CloseHandle(file.release())) {
        throw_last_error("Cannot persist upgrade recovery state");
    }
}

bool has_marker(const context& context, const std::wstring& name)
{
    if (GetFileAttributesW(join_path(context.workspace, name).c_str()) != INVALID_FILE_ATTRIBUTES) {
        return true;
    }
    const DWORD code = GetLastError();
    if (code != ERROR_FILE_NOT_FOUND && code != ERROR_PATH_NOT_FOUND) {
        throw windows_error{"Cannot read upgrade recovery state", code};
    }
    return false;
}

std::wstring folder_list_path(const context& context)
{
    return join_path(context.workspace, LR"(output\folders.xml)");
}

} // namespace custom_actions::controlled_upgrade
