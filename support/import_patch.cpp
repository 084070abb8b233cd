#include "support/import_patch.h"

#include "support/pe_image.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace test_support {
namespace {

ULONG_PTR* import_slot(HMODULE module, const char* function)
{
    const auto imports = pe_image{module}.imports();
    const auto found = std::ranges::find(imports, function, &imported_function::name);
    if (found == imports.end()) {
        throw std::runtime_error{std::string{"the module does not import "} + function};
    }
    return found->slot;
}

ULONG_PTR exchange_slot(ULONG_PTR* slot, ULONG_PTR value) noexcept
{
    DWORD protection = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    const ULONG_PTR previous = std::exchange(*slot, value);
    VirtualProtect(slot, sizeof *slot, protection, &protection);
    return previous;
}

} // namespace

untyped_import_patch::untyped_import_patch(HMODULE module, const char* function, ULONG_PTR replacement)
    : slot_{import_slot(module, function)}, original_{exchange_slot(slot_, replacement)}
{
}

untyped_import_patch::~untyped_import_patch()
{
    exchange_slot(slot_, original_);
}

} // namespace test_support
