#pragma once

#include <string>
#include <vector>

namespace benchmarks {

// A text below HKEY_LOCAL_MACHINE; an empty name is the key's default value.
struct registry_row {
    std::wstring key;
    std::wstring name;
    std::wstring text;
};

// What a package has beyond the least: one feature with one component, whose key path is a registry value.
struct package_content {
    std::vector<registry_row> rows;    // of the Registry table
    std::vector<std::wstring> actions; // of the built library: deferred, as LocalSystem, when all is written
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
    std::wstring path_;
};

} // namespace benchmarks
