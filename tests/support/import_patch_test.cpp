#include "support/child_process.h"
#include "support/import_patch.h"
#include "support/pe_image.h"

#include <gtest/gtest.h>
#include <msi.h>
#include <msiquery.h>

#include <algorithm>
#include <bit>
#include <stdexcept>

namespace test_support {
namespace {

MSIHANDLE WINAPI return_fields(UINT fields)
{
    return fields;
}

TEST(ImportPatch, finds_a_function_imported_by_ordinal)
{
    HMODULE const library = LoadLibraryW(beside_this_program(L"numbered_imports.dll").c_str());
    ASSERT_NE(library, nullptr);
    const auto imports = pe_image{library}.imports();
    EXPECT_TRUE(std::ranges::any_of(imports, &imported_function::by_number))
        << "the library imports nothing by ordinal";

    const auto make_record = std::bit_cast<MSIHANDLE (*)(UINT)>(GetProcAddress(library, "make_record"));
    {
        const import_patch<decltype(MsiCreateRecord)> patch{library, "MsiCreateRecord", &return_fields};
        EXPECT_EQ(make_record(77), 77U);
    }
    EXPECT_THROW(
        (import_patch<decltype(MsiCreateRecord)>{library, "MsiCreateRecord2", &return_fields}),
        std::runtime_error);
    FreeLibrary(library);
}

} // namespace
} // namespace test_support
