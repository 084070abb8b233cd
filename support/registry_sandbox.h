#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// Redirects `root` (HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER or HKEY_CLASSES_ROOT) for this process to an empty
// scratch key, which is deleted at the end. The 64-bit and the 32-bit view share it. HKEY_CLASSES_ROOT does
// not follow the other two: it needs its own sandbox.
class registry_sandbox {
public:
    // Throws std::system_error if the key cannot be created or redirected.
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

// The bytes of `text` with its terminating zero, as the registry stores them.
std::string registry_text(std::wstring_view text);

// Writes a value (the default one if `name` is empty), creating the key if needed. Throws std::system_error.
void plant_value(
    HKEY root, const std::wstring& path, const wchar_t* name, std::string_view bytes, DWORD type = REG_SZ);

// Writes a REG_DWORD.
void plant_number(HKEY root, const std::wstring& path, const wchar_t* name, DWORD number);

// The bytes of a value; nothing if it is absent.
std::optional<std::string> planted_value(HKEY root, const std::wstring& path, const wchar_t* name);

// A REG_DWORD; 0 if it is absent.
DWORD planted_number(HKEY root, const std::wstring& path, const wchar_t* name) noexcept;

// A line for each key and value below `key` ("\\path\\ name type bytes in hexadecimal"), sorted.
std::vector<std::string> dump_registry(HKEY key);

} // namespace test_support
