#pragma once

#include <windows.h>

#include <string>
#include <vector>

// A module as it is loaded in this process, read from its own headers.
namespace test_support {

struct imported_function {
    std::string library;
    std::string name; // looked up in the library when it is imported by number; empty if it has none there
    ULONG_PTR* slot;  // the entry of the import address table that calls go through
    bool by_number;
};

class pe_image {
public:
    // `module` is a loaded 64-bit image.
    explicit pe_image(HMODULE module) noexcept;

    [[nodiscard]] const IMAGE_NT_HEADERS64& headers() const noexcept { return *headers_; }

    // In the order of the export name table, which is alphabetical. The image has one.
    [[nodiscard]] std::vector<std::string> exported_names() const;

    [[nodiscard]] std::vector<imported_function> imports() const;

private:
    [[nodiscard]] const IMAGE_EXPORT_DIRECTORY& exports() const noexcept;

    // The name under which the image exports the function with this number; empty if there is none.
    [[nodiscard]] std::string exported_name(ULONGLONG number) const;

    template <class T>
    T* at(ULONG_PTR offset) const noexcept
    {
        return reinterpret_cast<T*>(reinterpret_cast<BYTE*>(module_) + offset);
    }

    HMODULE module_;
    const IMAGE_NT_HEADERS64* headers_;
};

} // namespace test_support
