#pragma once

#include "custom_actions/upgrade/context.h"
#include "tests/support/powershell_stand_in.h"

#include <string>

namespace test_support {

// CustomActionData for a new upgrade of this folder by this process's user and session.
std::wstring new_upgrade_data(const std::wstring& product_directory);

// The data of an upgrade with an empty workspace, and a suite's folder whose name needs quoting, with package
// files of version 1.5.0. PowerShell is the stand-in. At the end all of it is deleted. The machine must be
// disposable.
class upgrade_fixture {
public:
    // Throws std::exception if it cannot be set up.
    upgrade_fixture();
    ~upgrade_fixture();

    upgrade_fixture(const upgrade_fixture&) = delete;
    upgrade_fixture& operator=(const upgrade_fixture&) = delete;

    [[nodiscard]] const custom_actions::controlled_upgrade::context& context() const noexcept
    {
        return context_;
    }

    powershell_stand_in powershell;

private:
    custom_actions::controlled_upgrade::context context_;
};

} // namespace test_support
