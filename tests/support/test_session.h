#pragma once

#include "support/real_session.h"
#include "tests/support/import_hook.h"

#include <windows.h>
#include <msi.h>

#include <list>
#include <optional>
#include <string>

namespace test_support {

// A session of the real installer for one module. Fakes what would need an installed product: components and
// target folders. A record left open or closed twice fails the test. Only one may exist at a time.
class test_session : public real_session {
public:
    // Throws std::runtime_error if `module` does not import a function that is intercepted here.
    explicit test_session(HMODULE module);
    ~test_session();

    void set_property(const std::wstring& name, const std::wstring& value) const;
    [[nodiscard]] std::optional<std::wstring> property(const std::wstring& name) const;

    // Fakes one component that is installed for all users, and no other.
    void install_component(
        const std::wstring& product, const std::wstring& component, const std::wstring& key_path)
    {
        installed_ = product + component;
        key_path_ = key_path;
    }

    // The number of records that the module has open.
    [[nodiscard]] unsigned open_records() const noexcept { return open_records_; }

private:
    unsigned open_records_ = 0;
    std::wstring installed_; // product and component
    std::wstring key_path_;
    std::list<import_hook> hooks_;
};

// CustomActionData for a new upgrade of this folder by this process's user and session.
std::wstring new_upgrade_data(const std::wstring& product_directory);

} // namespace test_support
