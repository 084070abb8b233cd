#pragma once

#include <windows.h>

#include <string>

namespace test_support {

// The path of custom_actions.dll beside this program.
std::wstring built_library();

// The library, loaded with its imports looked up in the system directory only, as on a clean machine.
class loaded_library {
public:
    // `path` is absolute. Throws std::system_error if the library does not load.
    explicit loaded_library(const std::wstring& path = built_library());
    ~loaded_library();

    loaded_library(const loaded_library&) = delete;
    loaded_library& operator=(const loaded_library&) = delete;

    [[nodiscard]] HMODULE module() const noexcept { return module_; }

    // Calls the exported action `name` and returns its code. Throws std::runtime_error if there is none.
    UINT call(const char* name, unsigned long session) const;

private:
    HMODULE module_;
};

} // namespace test_support
