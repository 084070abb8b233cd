#pragma once

#include "support/real_session.h"
#include "tests/support/failing_import.h"

#include <windows.h>
#include <msi.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

void PrintTo(const posted_message& message, std::ostream* out);

// The functions of msi.dll of which a failure can be asked.
enum class installer_call { get_property, set_property, set_target_path, get_component_path };

// A session of the real installer for one module, in which calls of the module can fail. What needs a product
// that is installed or being installed is played: its components, and the folders to install to. A record
// that is still open at the end, or closed twice, and a failure that was never met fail the test. One can
// live at a time.
class scripted_session : public real_session {
public:
    explicit scripted_session(HMODULE module);
    ~scripted_session();

    void set_property(const std::wstring& name, const std::wstring& value) const;
    [[nodiscard]] std::optional<std::wstring> property(const std::wstring& name) const;

    // Has a component of a product installed on this machine, for every user, with this key path.
    void install_component(
        const std::wstring& product, const std::wstring& component, const std::wstring& key_path)
    {
        key_paths_[product + component] = key_path;
    }

    // The n-th call from here on (1 is the next) fails with `code`, an INSTALLSTATE where it asks for a
    // component.
    void fail(installer_call call, UINT code = ERROR_FUNCTION_FAILED, unsigned nth = 1);

    // How many records the module has open.
    [[nodiscard]] unsigned open_records() const noexcept { return open_records_; }

private:
    struct planned_failure {
        installer_call call;
        UINT code;
        unsigned calls_left;
    };

    std::optional<UINT> failure(installer_call call);

    unsigned open_records_ = 0;
    std::optional<planned_failure> planned_;
    std::map<std::wstring, std::wstring> key_paths_; // by product and component
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
