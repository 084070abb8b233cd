// The shipped library: the number of its exports (action_traces.txt has their names), what it needs of the
// system, and its link options.

#include "custom_actions/common/system_directory.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace test_support {
namespace {

TEST(LibraryImage, exports_every_action_imports_only_system_libraries_and_is_hardened)
{
    const loaded_library library;
    const pe_image image{library.module()};
    EXPECT_EQ(image.exported_names().size(), 22U);
    const std::filesystem::path system = custom_actions::system_directory("");
    for (const imported_function& imported : image.imports()) {
        EXPECT_TRUE(exists(system / imported.library)) << imported.name << " of " << imported.library;
    }
    constexpr unsigned hardened = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE |
                                  IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                                  IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(image.headers().OptionalHeader.DllCharacteristics & hardened, hardened);
}

} // namespace
} // namespace test_support
