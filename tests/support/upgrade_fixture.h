#pragma once

#include "custom_actions/upgrade/context.h"
#include "support/toy_suite.h"
#include "tests/support/powershell_stand_in.h"

#include <string>
#include <vector>

namespace test_support {

// CustomActionData for a new upgrade of this folder by this process's user and session.
std::wstring new_upgrade_data(const std::wstring& product_directory);

// An installed suite before an upgrade, in this process's own folder (whose name needs quoting), with package
// files of version 1.5.0: one package registered in that version, one in an older one, the others not at all.
// PowerShell is the stand-in; there is no workspace yet. At the end all of it is ended and deleted, and the
// maintenance key too. The machine must be disposable.
class upgrade_fixture {
public:
    // Throws std::exception if the suite cannot be set up.
    upgrade_fixture();
    ~upgrade_fixture();

    upgrade_fixture(const upgrade_fixture&) = delete;
    upgrade_fixture& operator=(const upgrade_fixture&) = delete;

    // Copies the package files of `version` into the folder, as the installer does between the phases.
    void copy_packages(const std::wstring& version) const;

    [[nodiscard]] std::wstring program(const wchar_t* name) const { return folder_ + L'\\' + name; }

    // The markers in the workspace, sorted; empty if there is no workspace.
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
