#include "tests/support/pe_image.h"

#include <cstddef>
#include <stdexcept>

namespace test_support {

template <class T>
T* pe_image::at(ULONG_PTR offset) const noexcept
{
    return reinterpret_cast<T*>(reinterpret_cast<ULONG_PTR>(module_) + offset);
}

template <class T>
const T* pe_image::directory(unsigned index) const noexcept
{
    const IMAGE_DATA_DIRECTORY& entry = headers_->OptionalHeader.DataDirectory[index];
    return entry.VirtualAddress == 0 ? nullptr : at<const T>(entry.VirtualAddress);
}

pe_image::pe_image(HMODULE module) : module_{module}
{
    const auto* dos = at<const IMAGE_DOS_HEADER>(0);
    if (module == nullptr || dos->e_magic != IMAGE_DOS_SIGNATURE) {
        throw std::runtime_error{"not a loaded module"};
    }
    headers_ = at<const IMAGE_NT_HEADERS64>(static_cast<ULONG_PTR>(dos->e_lfanew));
    if (headers_->Signature != IMAGE_NT_SIGNATURE ||
        headers_->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
        throw std::runtime_error{"not a 64-bit image"};
    }
}

std::span<const IMAGE_SECTION_HEADER> pe_image::sections() const noexcept
{
    // They follow the optional header. (IMAGE_FIRST_SECTION does the same with a cast of C.)
    const auto* optional_header = reinterpret_cast<const std::byte*>(&headers_->OptionalHeader);
    const auto* first = reinterpret_cast<const IMAGE_SECTION_HEADER*>(
        optional_header + headers_->FileHeader.SizeOfOptionalHeader);
    return {first, headers_->FileHeader.NumberOfSections};
}

std::vector<std::string> pe_image::exported_names() const
{
    std::vector<std::string> names;
    if (const auto* exports = directory<IMAGE_EXPORT_DIRECTORY>(IMAGE_DIRECTORY_ENTRY_EXPORT)) {
        for (const DWORD name : std::span{at<const DWORD>(exports->AddressOfNames), exports->NumberOfNames}) {
            names.emplace_back(at<const char>(name));
        }
    }
    return names;
}

DWORD pe_image::export_count() const noexcept
{
    const auto* exports = directory<IMAGE_EXPORT_DIRECTORY>(IMAGE_DIRECTORY_ENTRY_EXPORT);
    return exports == nullptr ? 0 : exports->NumberOfFunctions;
}

std::vector<imported_function> pe_image::imports() const
{
    std::vector<imported_function> functions;
    for (const auto* library = directory<IMAGE_IMPORT_DESCRIPTOR>(IMAGE_DIRECTORY_ENTRY_IMPORT);
         library != nullptr && library->Name != 0;
         ++library) {
        const auto* entry = at<const IMAGE_THUNK_DATA64>(library->OriginalFirstThunk);
        auto* slot = at<ULONG_PTR>(library->FirstThunk);
        for (; entry->u1.AddressOfData != 0; ++entry, ++slot) {
            const bool by_ordinal = IMAGE_SNAP_BY_ORDINAL64(entry->u1.Ordinal);
            functions.push_back(
                {.library = at<const char>(library->Name),
                 .name = by_ordinal ? "" : at<const IMAGE_IMPORT_BY_NAME>(entry->u1.AddressOfData)->Name,
                 .slot = slot});
        }
    }
    return functions;
}

} // namespace test_support
