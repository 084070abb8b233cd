#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <vector>

// A module as it is loaded in this process, read from its own headers.
namespace test_support {

struct imported_function {
    std::string library;
    std::string name; // empty where it is imported by ordinal
    ULONG_PTR* slot;  // the entry of the import address table that calls go through
};

class pe_image {
public:
    // Throws std::runtime_error where `module` is not a loaded 64-bit image.
    explicit pe_image(HMODULE module);

    [[nodiscard]] const IMAGE_NT_HEADERS64& headers() const noexcept { return *headers_; }

    [[nodiscard]] std::span<const IMAGE_SECTION_HEADER> sections() const noexcept;

    // In the order of the export name table, which is alphabetical.
    [[nodiscard]] std::vector<std::string> exported_names() const;

    // How many entries the export address table has, named or not.
    [[nodiscard]] DWORD export_count() const noexcept;

    [[nodiscard]] std::vector<imported_function> imports() const;

private:
    template <class T>
    T* at(ULONG_PTR offset) const noexcept;

    template <class T>
    const T* directory(unsigned index) const noexcept;

    HMODULE module_;
    const IMAGE_NT_HEADERS64* headers_ = nullptr;
};

} // namespace test_support
