#include "custom_actions/upgrade/process_location.h"

#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/text.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/inspection_identity.h"

#include <psapi.h>

namespace custom_actions::controlled_upgrade {
namespace {

constexpr DWORD LONGEST_PATH = 32768; // characters

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

image_location find_image(DWORD process, DWORD fallback_session)
{
    const kernel_handle opened =
        open_process_as_host_owner(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, process, fallback_session);
    if (!opened) {
        return {.path = {}, .error = GetLastError()};
    }
    std::wstring path(LONGEST_PATH, L'\0');
    DWORD length = LONGEST_PATH;
    if (!QueryFullProcessImageNameW(opened.get(), 0, path.data(), &length)) {
        length = first_module_path(opened.get(), path);
    }
    const DWORD error = GetLastError();
    path.resize(length);
    return {.path = path, .error = error};
}

bool image_in_product_directory(DWORD process, const context& context)
{
    const image_location image = find_image(process, context.session_id);
    if (image.path.empty() && image.error == ERROR_INVALID_PARAMETER) {
        return false;
    }
    if (image.path.empty()) {
        throw windows_error{"Cannot identify original QBL image location", image.error};
    }
    return equal_ignoring_case(parent_folder(image.path), context.product_directory);
}

} // namespace custom_actions::controlled_upgrade
