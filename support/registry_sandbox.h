#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// Gives this process a predefined key of its own: while it lives, everything under `root`
// (HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER or HKEY_CLASSES_ROOT) lands in an empty scratch key, which is
// deleted at the end. The 64-bit and the 32-bit view both go there, and HKEY_CLASSES_ROOT goes with neither
// of the others.
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

// The bytes of `text` and its terminating zero, as the registry keeps them.
std::string registry_text(std::wstring_view text);

// Writes a value (an empty name is the default one), making the key where it is not there. Throws
// std::system_error.
void plant_value(
    HKEY root, const std::wstring& path, const wchar_t* name, std::string_view bytes, DWORD type = REG_SZ);

// The same with a number, as REG_DWORD.
void plant_number(HKEY root, const std::wstring& path, const wchar_t* name, DWORD number);

// The bytes of a value, or nothing where it is not there.
std::optional<std::string> planted_value(HKEY root, const std::wstring& path, const wchar_t* name);

// A number, or 0 where it is not there.
DWORD planted_number(HKEY root, const std::wstring& path, const wchar_t* name) noexcept;

// Every key and value below `key`, a line each ("\\path\\ name type bytes in hexadecimal"), in a fixed order.
std::vector<std::string> dump_registry(HKEY key);

} // namespace test_support
