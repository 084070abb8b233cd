#pragma once

#include "custom_actions/upgrade/context.h"
#include "support/toy_suite.h"
#include "tests/support/powershell_stand_in.h"

#include <string>
#include <vector>

namespace test_support {

// The CustomActionData of an upgrade of this folder, new, for this process's own user and session.
std::wstring new_upgrade_data(const std::wstring& product_directory);

// An installed suite in a folder of this process's own, whose name is a hard one, with version 1.5.0 of its
// package files, before an upgrade: of it, one package is registered as it should be, one in an older
// version, and the others are not. PowerShell is the stand-in. No workspace is there yet. At the end nothing
// of it runs or is there, the maintenance key neither. The machine must be disposable.
class upgrade_fixture {
public:
    // Throws std::exception where the suite cannot be put there.
    upgrade_fixture();
    ~upgrade_fixture();

    upgrade_fixture(const upgrade_fixture&) = delete;
    upgrade_fixture& operator=(const upgrade_fixture&) = delete;

    // What an installer does between the phases.
    void copy_packages(const std::wstring& version) const;

    [[nodiscard]] std::wstring program(const wchar_t* name) const { return folder_ + L'\\' + name; }

    // The markers in the workspace, sorted; nothing where that is not there.
    [[nodiscard]] std::vector<std::string> markers() const;

    [[nodiscard]] const std::wstring& data() const noexcept { return data_; }

    [[nodiscard]] const custom_actions::controlled_upgrade::context& context() const noexcept
    {
        return context_;
    }

    powershell_stand_in powershell;

private:
    std::wstring folder_;
    std::wstring data_;
    custom_actions::controlled_upgrade::context context_;
};

} // namespace test_support
