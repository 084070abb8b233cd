#pragma once

#include "support/scratch_database.h"

#include <string>
#include <utility>
#include <vector>

namespace benchmarks {

// A text below HKEY_LOCAL_MACHINE; an empty name is the key's default value.
struct registry_row {
    std::wstring key;
    std::wstring name;
    std::wstring text;
};

// The installer's numbers for an action of a library in the package.
inline constexpr int IMMEDIATE = 1;
inline constexpr int DEFERRED_AS_SYSTEM = 3073;
inline constexpr int GOES_ON_WHEN_IT_FAILS = 64; // to be added

// A function of a library beside this program. The immediate ones run before anything is installed, the
// deferred ones when all is written; each kind in its order, and none in a removal.
struct package_action {
    std::wstring name;
    std::wstring function{name};
    std::wstring library{L"custom_actions.dll"};
    int type = DEFERRED_AS_SYSTEM;
};

// What a package has beyond the least: one feature with one component, whose key path is a registry value.
struct package_content {
    std::vector<registry_row> rows; // of the Registry table
    std::vector<package_action> actions;
    std::vector<std::pair<std::wstring, std::wstring>> properties;
};

// An installer package for the whole machine, made here. Its file goes with it, and so does the product.
class scratch_package {
public:
    // Removes the product first where an earlier run has left it. Throws std::system_error.
    scratch_package(std::wstring product_code, const package_content& content);
    ~scratch_package();

    scratch_package(const scratch_package&) = delete;
    scratch_package& operator=(const scratch_package&) = delete;

    // Without any display. Throws std::system_error with the installer's code.
    void install() const;
    void remove() const;

private:
    std::wstring product_code_;
    test_support::scratch_database database_;
};

} // namespace benchmarks
