#pragma once

#include <windows.h>

#include <type_traits>

namespace test_support {

// Sends the calls that one module makes through one entry of its import table somewhere else, until the scope
// ends. Only calls of that module are redirected, and only those that go through the table (not
// GetProcAddress). A function that is running while the patch comes or goes may have read its imports
// already.
class untyped_import_patch {
public:
    // Throws std::runtime_error where `module` does not import `function`.
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

// As above, with the function's type: import_patch<decltype(MsiCloseHandle)> patch{module, "MsiCloseHandle",
// other}.
template <class Function>
class import_patch : public untyped_import_patch {
    static_assert(std::is_function_v<Function>);

public:
    import_patch(HMODULE module, const char* function, Function* replacement)
        : untyped_import_patch{module, function, reinterpret_cast<ULONG_PTR>(replacement)}
    {
    }

    // What the calls went to before.
    [[nodiscard]] Function* original() const noexcept
    {
        return reinterpret_cast<Function*>(untyped_import_patch::original());
    }
};

} // namespace test_support
