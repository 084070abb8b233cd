#pragma once

#include <windows.h>

#include <string>

namespace test_support {

// custom_actions.dll beside this program.
std::wstring built_library();

// The library, loaded as on a machine that has nothing but the system's own libraries: what it needs is
// looked for in the system directory alone.
class loaded_library {
public:
    // `path` is absolute. Throws std::system_error where the library does not load.
    explicit loaded_library(const std::wstring& path = built_library());
    ~loaded_library();

    loaded_library(const loaded_library&) = delete;
    loaded_library& operator=(const loaded_library&) = delete;

    [[nodiscard]] HMODULE module() const noexcept { return module_; }

    // Calls the exported action `name`. Throws std::runtime_error where there is none.
    UINT call(const char* name, unsigned long session) const;

private:
    HMODULE module_;
};

} // namespace test_support
