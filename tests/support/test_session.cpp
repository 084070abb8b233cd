#include "tests/support/test_session.h"

#include "custom_actions/common/installer_session.h"

#include <gtest/gtest.h>

#include <utility>

namespace test_support {
namespace {

using component_path_query = INSTALLSTATE
    WINAPI(LPCWSTR, LPCWSTR, LPCWSTR, MSIINSTALLCONTEXT, LPWSTR, LPDWORD);

} // namespace

test_session::test_session(HMODULE module)
{
    interceptions_.push_back(intercept<"MsiCreateRecord">(module, &MsiCreateRecord, [this](UINT) {
        ++open_records_;
        return std::nullopt;
    }));
    interceptions_.push_back(intercept<"MsiCloseHandle">(module, &MsiCloseHandle, [this](MSIHANDLE record) {
        --open_records_;
        EXPECT_NE(MsiRecordGetFieldCount(record), ~0U) << "closes what is not an open record: " << record;
        return std::nullopt;
    }));
    if (module == GetModuleHandleW(nullptr)) {
        return; // a test program imports neither of the following
    }
    interceptions_.push_back(intercept<"MsiSetTargetPathW">(
        module, &MsiSetTargetPathW, [this](MSIHANDLE, const std::wstring& folder, const std::wstring& path) {
            // Like the installer, with one separator at the end.
            set_property(folder, path.ends_with(L'\\') ? path : path + L'\\');
            return UINT{ERROR_SUCCESS};
        }));
    interceptions_.push_back(intercept<"MsiGetComponentPathExW", component_path_query>(
        module,
        nullptr,
        [this](const std::wstring& product, auto component, auto user, auto context, auto path, auto size) {
            if (product + component != installed_ || user != nullptr ||
                context != MSIINSTALLCONTEXT_MACHINE) {
                return INSTALLSTATE_UNKNOWN;
            }
            *size = static_cast<DWORD>(key_path_.copy(path, *size)); // the buffer is filled with zeros
            return INSTALLSTATE_LOCAL;
        }));
}

test_session::~test_session()
{
    EXPECT_EQ(open_records_, 0U) << "records left open";
}

void test_session::set_property(const std::wstring& name, const std::wstring& value) const
{
    custom_actions::set_property(handle(), name.c_str(), value, "a test cannot set a property");
}

std::optional<std::wstring> test_session::property(const std::wstring& name) const
{
    const std::wstring value = custom_actions::read_property(handle(), name.c_str());
    return value.empty() ? std::nullopt : std::optional{value};
}

} // namespace test_support
