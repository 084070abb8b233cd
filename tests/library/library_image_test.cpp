// What the shipped library needs of the system, and its link options. Its exports are those of
// action_traces.txt.

#include "custom_actions/common/system_directory.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace test_support {
namespace {

TEST(LibraryImage, imports_only_system_libraries_and_is_hardened)
{
    const loaded_library library;
    const pe_image image{library.module()};
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
