#include "tests/support/test_session.h"

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"

#include <gtest/gtest.h>

namespace test_support {
test_session::test_session(HMODULE module)
{
    hooks_.emplace_back(module, "MsiCreateRecord", [this]() -> std::optional<word> {
        ++open_records_;
        return std::nullopt;
    });
    hooks_.emplace_back(module, "MsiCloseHandle", [this](MSIHANDLE record) -> std::optional<word> {
        --open_records_;
        EXPECT_NE(MsiRecordGetFieldCount(record), ~0U) << "closes what is not an open record: " << record;
        return std::nullopt;
    });
    if (module == GetModuleHandleW(nullptr)) {
        return; // a test program imports neither of the following
    }
    hooks_.emplace_back(module, "MsiSetTargetPathW", [this](MSIHANDLE, LPCWSTR folder, LPCWSTR path) {
        const std::wstring set = path; // like the installer, with one separator at the end
        set_property(folder, set.ends_with(L'\\') ? set : set + L'\\');
        return ERROR_SUCCESS;
    });
    hooks_.emplace_back(
        module,
        "MsiGetComponentPathExW",
        [this](LPCWSTR product, LPCWSTR component, LPCWSTR user, DWORD context, LPWSTR path, DWORD* size) {
            if (std::wstring{product} + component != installed_ || user != nullptr ||
                context != MSIINSTALLCONTEXT_MACHINE) {
                return INSTALLSTATE_UNKNOWN;
            }
            *size = static_cast<DWORD>(key_path_.copy(path, *size)); // the buffer is filled with zeros
            return INSTALLSTATE_LOCAL;
        });
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

std::wstring new_upgrade_data(const std::wstring& product_directory)
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    const std::wstring user = custom_actions::token_user_sid(GetCurrentProcessToken());
    const std::wstring transaction = custom_actions::new_guid("no transaction", "no transaction");
    return custom_actions::controlled_upgrade::format_context(product_directory, session, user, transaction);
}

} // namespace test_support
