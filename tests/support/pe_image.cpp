#include "tests/support/pe_image.h"

#include <span>

namespace test_support {

template <class T>
T* pe_image::at(ULONG_PTR offset) const noexcept
{
    return reinterpret_cast<T*>(reinterpret_cast<ULONG_PTR>(module_) + offset);
}

template <class T>
const T* pe_image::directory(unsigned index) const noexcept
{
    return at<const T>(headers_->OptionalHeader.DataDirectory[index].VirtualAddress);
}

pe_image::pe_image(HMODULE module) noexcept
    : module_{module},
      headers_{at<const IMAGE_NT_HEADERS64>(static_cast<ULONG_PTR>(at<const IMAGE_DOS_HEADER>(0)->e_lfanew))}
{
}

std::vector<std::string> pe_image::exported_names() const
{
    const auto* exports = directory<IMAGE_EXPORT_DIRECTORY>(IMAGE_DIRECTORY_ENTRY_EXPORT);
    std::vector<std::string> names;
    for (const DWORD name : std::span{at<const DWORD>(exports->AddressOfNames), exports->NumberOfNames}) {
        names.emplace_back(at<const char>(name));
    }
    return names;
}

std::vector<imported_function> pe_image::imports() const
{
    std::vector<imported_function> functions;
    for (const auto* library = directory<IMAGE_IMPORT_DESCRIPTOR>(IMAGE_DIRECTORY_ENTRY_IMPORT);
         library->Name != 0;
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
