#pragma once

#include <windows.h>

#include <type_traits>

namespace test_support {

// Redirects one entry of a module's import table until the scope ends. Calls by other modules or through
// GetProcAddress are not affected. A function that runs while the patch is set or removed may use the old
// entry.
class untyped_import_patch {
public:
    // Throws std::runtime_error if `module` does not import `function`.
    untyped_import_patch(HMODULE module, const char* function, ULONG_PTR replacement);
    ~untyped_import_patch();

    untyped_import_patch(const untyped_import_patch&) = delete;
    untyped_import_patch& operator=(const untyped_import_patch&) = delete;

protected:
    [[nodiscard]] ULONG_PTR original() const noexcept { return original_; }

private:
    ULONG_PTR* slot_;
    ULONG_PTR original_;
};

// The same, typed: import_patch<decltype(MsiCloseHandle)> patch{module, "MsiCloseHandle", &replacement}.
template <class Function>
class import_patch : public untyped_import_patch {
    static_assert(std::is_function_v<Function>);

public:
    import_patch(HMODULE module, const char* function, Function* replacement)
        : untyped_import_patch{module, function, reinterpret_cast<ULONG_PTR>(replacement)}
    {
    }

    [[nodiscard]] Function* original() const noexcept
    {
        return reinterpret_cast<Function*>(untyped_import_patch::original());
    }
};

} // namespace test_support
