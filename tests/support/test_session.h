#pragma once

#include "custom_actions/common/guid.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/upgrade/context.h"
#include "support/real_session.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace test_support {

// A session of the real installer for one module, but no test program. A record that the module leaves open
// or closes twice fails the test. Only one may exist at a time.
class test_session : public real_session {
public:
    // Throws std::runtime_error if `module` does not import a function that is intercepted here.
    explicit test_session(HMODULE module) : module_{module} {}

    ~test_session() { EXPECT_EQ(open_records_, 0U) << "records left open"; }

    void set_property(const std::wstring& name, const std::wstring& value) const
    {
        custom_actions::set_property(handle(), name.c_str(), value, "a test cannot set a property");
    }

    [[nodiscard]] bool has_property(const std::wstring& name) const
    {
        return !custom_actions::read_property(handle(), name.c_str()).empty();
    }

    // The number of records that the module has open.
    [[nodiscard]] unsigned open_records() const noexcept { return open_records_; }

private:
    HMODULE module_;
    unsigned open_records_ = 0;
    import_hook record_made_{module_, "MsiCreateRecord", [this]() -> std::optional<word> {
                                 ++open_records_;
                                 return std::nullopt;
                             }};
    import_hook record_closed_{module_, "MsiCloseHandle", [this](MSIHANDLE record) -> std::optional<word> {
                                   --open_records_;
                                   EXPECT_NE(MsiRecordGetFieldCount(record), ~0U)
                                       << "not an open record: " << record;
                                   return std::nullopt;
                               }};
};

// CustomActionData for a new upgrade of this folder by this process's user and session.
inline std::wstring new_upgrade_data(const std::wstring& product_directory)
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return custom_actions::controlled_upgrade::format_context(
        product_directory,
        session,
        custom_actions::token_user_sid(GetCurrentProcessToken()),
        custom_actions::new_guid("no transaction", "no transaction"));
}

} // namespace test_support
