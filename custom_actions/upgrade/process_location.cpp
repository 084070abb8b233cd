#include "custom_actions/upgrade/process_location.h"

#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/inspection_identity.h"

#include <psapi.h>

namespace custom_actions::controlled_upgrade {
namespace {

DWORD first_module_path(HANDLE process, std::wstring& path) noexcept
{
    HMODULE first = nullptr;
    DWORD needed = 0;
    if (!K32EnumProcessModulesEx(process, &first, sizeof(HMODULE), &needed, LIST_MODULES_ALL)) {
        return 0;
    }
    return K32GetModuleFileNameExW(process, first, path.data(), static_cast<DWORD>(path.size()));
}

} // namespace

std::optional<std::wstring> image_path(DWORD process, DWORD fallback_session)
{
    const kernel_handle opened =
        open_process_as_host_owner(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, process, fallback_session);
    if (!opened) {
        return std::nullopt;
    }
    std::wstring path(32768, L'\0');
    auto length = static_cast<DWORD>(path.size());
    if (!QueryFullProcessImageNameW(opened.get(), 0, path.data(), &length)) {
        length = first_module_path(opened.get(), path);
    }
    if (length == 0) {
        return std::nullopt;
    }
    path.resize(length);
    return path;
}

bool image_in_product_directory(DWORD process, const context& context)
{
    const std::optional<std::wstring> path = image_path(process, context.session_id);
    if (!path) {
        if (GetLastError() == ERROR_INVALID_PARAMETER) {
            return false;
        }
        throw_last_error("Cannot identify original QBL image location");
    }
    return equal_ignoring_case(parent_folder(*path), context.product_directory);
}

} // namespace custom_actions::controlled_upgrade
