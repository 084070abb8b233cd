#pragma once

#include "support/scratch_database.h"

#include <string>
#include <utility>
#include <vector>

namespace benchmarks {

// A text value below HKEY_LOCAL_MACHINE; an empty name means the default value.
struct registry_row {
    std::wstring key;
    std::wstring name;
    std::wstring text;
};

// The installer's type numbers for a DLL action from the Binary table.
inline constexpr int IMMEDIATE = 1;
inline constexpr int DEFERRED_AS_SYSTEM = 3073;
inline constexpr int GOES_ON_WHEN_IT_FAILS = 64; // added to one of the above

// A function of a library beside this program. Immediate actions run before anything is installed, deferred
// ones after all values are written; each kind in the given order, none in a removal.
struct package_action {
    std::wstring name;
    std::wstring function{name};
    std::wstring library{L"custom_actions.dll"};
    int type = DEFERRED_AS_SYSTEM;
};

// A per-machine installer package with one feature of one component. The destructor removes its file and the
// installed product.
class scratch_package {
public:
    // Removes the product first if an earlier run left it. Throws std::system_error.
    scratch_package(
        std::wstring product_code,
        const std::vector<registry_row>& rows, // for the Registry table
        const std::vector<package_action>& actions,
        const std::vector<std::pair<std::wstring, std::wstring>>& properties = {});
    ~scratch_package();

    scratch_package(const scratch_package&) = delete;
    scratch_package& operator=(const scratch_package&) = delete;

    // Silent. Both throw std::system_error with the installer's code.
    void install() const;
    void remove() const;

private:
    std::wstring product_code_;
    test_support::scratch_database database_;
};

} // namespace benchmarks
