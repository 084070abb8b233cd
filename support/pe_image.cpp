#include "support/pe_image.h"

#include <span>

namespace test_support {

pe_image::pe_image(HMODULE module) noexcept
    : module_{module},
      headers_{at<const IMAGE_NT_HEADERS64>(static_cast<ULONG_PTR>(at<const IMAGE_DOS_HEADER>(0)->e_lfanew))}
{
}

std::vector<std::string> pe_image::exported_names() const
{
    std::vector<std::string> names;
    for (const DWORD name : std::span{at<const DWORD>(exports().AddressOfNames), exports().NumberOfNames}) {
        names.emplace_back(at<const char>(name));
    }
    return names;
}

std::vector<imported_function> pe_image::imports() const
{
    const auto& table = headers_->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    std::vector<imported_function> functions;
    for (const auto* library = at<const IMAGE_IMPORT_DESCRIPTOR>(table.VirtualAddress); library->Name != 0;
         ++library) {
        const auto* const from = at<const char>(library->Name);
        const auto* entry = at<const IMAGE_THUNK_DATA64>(library->OriginalFirstThunk);
        auto* slot = at<ULONG_PTR>(library->FirstThunk);
        for (; entry->u1.AddressOfData != 0; ++entry, ++slot) {
            const bool by_number = IMAGE_SNAP_BY_ORDINAL64(entry->u1.Ordinal);
            functions.push_back(
                {.library = from,
                 .name = by_number ? pe_image{GetModuleHandleA(from)}.exported_name(
                                         IMAGE_ORDINAL64(entry->u1.Ordinal))
                                   : at<const IMAGE_IMPORT_BY_NAME>(entry->u1.AddressOfData)->Name,
                 .slot = slot,
                 .by_number = by_number});
        }
    }
    return functions;
}

const IMAGE_EXPORT_DIRECTORY& pe_image::exports() const noexcept
{
    const auto& entry = headers_->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    return *at<const IMAGE_EXPORT_DIRECTORY>(entry.VirtualAddress);
}

std::string pe_image::exported_name(ULONGLONG number) const
{
    const std::span numbers{at<const WORD>(exports().AddressOfNameOrdinals), exports().NumberOfNames};
    for (std::size_t i = 0; i != numbers.size(); ++i) {
        if (exports().Base + numbers[i] == number) {
            return at<const char>(at<const DWORD>(exports().AddressOfNames)[i]);
        }
    }
    return {};
}

} // namespace test_support
