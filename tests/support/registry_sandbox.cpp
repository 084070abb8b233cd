#include "tests/support/registry_sandbox.h"

#include <system_error>

namespace test_support {
namespace {

void require(LSTATUS status, const char* what)
{
    if (status != ERROR_SUCCESS) {
        throw std::system_error{static_cast<int>(status), std::system_category(), what};
    }
}

// Two sandboxes of one process redirect different roots, so the root's low bits keep their keys apart.
std::wstring scratch_name(HKEY root)
{
    return std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(reinterpret_cast<ULONG_PTR>(root) & 0xF);
}

} // namespace

registry_sandbox::registry_sandbox(HKEY root) : root_{root}, name_{scratch_name(root)}
{
    require(
        RegCreateKeyExW(
            HKEY_CURRENT_USER,
            L"Software\\QuorbelTests",
            0,
            nullptr,
            REG_OPTION_NON_VOLATILE,
            KEY_ALL_ACCESS,
            nullptr,
            parent_.put(),
            nullptr),
        "cannot make the tests' key");
    RegDeleteTreeW(parent_.get(), name_.c_str()); // what a process that crashed may have left
    require(
        RegCreateKeyExW(
            parent_.get(),
            name_.c_str(),
            0,
            nullptr,
            REG_OPTION_NON_VOLATILE,
            KEY_ALL_ACCESS,
            nullptr,
            scratch_.put(),
            nullptr),
        "cannot make the scratch key");
    require(RegOverridePredefKey(root_, scratch_.get()), "cannot redirect the predefined key");
}

registry_sandbox::~registry_sandbox()
{
    RegOverridePredefKey(root_, nullptr);
    RegDeleteTreeW(parent_.get(), name_.c_str());
}

} // namespace test_support
