#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <string>

namespace test_support {

// Gives this process a predefined key of its own: while it lives, everything under `root` (HKEY_LOCAL_MACHINE
// or HKEY_CURRENT_USER) lands in an empty scratch key, which is deleted at the end. The 64-bit and the 32-bit
// view both go there, and HKEY_CLASSES_ROOT does not.
class registry_sandbox {
public:
    // Throws std::system_error where the scratch key cannot be made or put in place.
    explicit registry_sandbox(HKEY root);
    ~registry_sandbox();

    registry_sandbox(const registry_sandbox&) = delete;
    registry_sandbox& operator=(const registry_sandbox&) = delete;

private:
    HKEY root_;
    custom_actions::registry_key_handle parent_; // opened before HKEY_CURRENT_USER may be redirected
    std::wstring name_;
    custom_actions::registry_key_handle scratch_;
};

} // namespace test_support
