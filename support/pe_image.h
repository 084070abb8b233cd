#pragma once

#include <windows.h>

#include <string>
#include <vector>

// Reads the headers of a module loaded in this process.
namespace test_support {

struct imported_function {
    std::string library;
    std::string name; // looked up in the library if imported by number; empty if it has none there
    ULONG_PTR* slot;  // its entry in the import address table
    bool by_number;
};

class pe_image {
public:
    // `module` is a loaded 64-bit image.
    explicit pe_image(HMODULE module) noexcept;

    [[nodiscard]] const IMAGE_NT_HEADERS64& headers() const noexcept { return *headers_; }

    // In alphabetical order. The image must have an export table.
    [[nodiscard]] std::vector<std::string> exported_names() const;

    [[nodiscard]] std::vector<imported_function> imports() const;

private:
    [[nodiscard]] const IMAGE_EXPORT_DIRECTORY& exports() const noexcept;

    // The name of the export with this number; empty if there is none.
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
