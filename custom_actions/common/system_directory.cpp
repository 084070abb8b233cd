#include "custom_actions/common/system_directory.h"

#include <windows.h>

#include <array>
#include <stdexcept>

namespace custom_actions {
namespace {

// `read` is GetWindowsDirectoryW or GetSystemDirectoryW.
std::wstring read_directory(decltype(GetSystemDirectoryW)* read, const char* failure)
{
    std::array<wchar_t, MAX_PATH> path{};
    const UINT length = read(path.data(), static_cast<UINT>(path.size()));
    if (length == 0 || length >= path.size()) {
        throw std::runtime_error{failure};
    }
    return path.data();
}

} // namespace

std::wstring windows_directory()
{
    return read_directory(GetWindowsDirectoryW, "Cannot resolve Windows directory");
}

std::wstring system_directory(const char* failure)
{
    return read_directory(GetSystemDirectoryW, failure);
}

} // namespace custom_actions
