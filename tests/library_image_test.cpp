// The shipped library: its exports, imports and link options.

#include "support/loaded_library.h"
#include "support/pe_image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace test_support {
namespace {

TEST(LibraryImage, exports_the_documented_actions_imports_only_system_libraries_and_is_hardened)
{
    const loaded_library library;
    const pe_image image{library.module()};
    std::string actions;
    std::getline(std::ifstream{SOURCE_DIR "/docs/actions.md"}, actions, '\0');
    const std::regex row{R"(\n\| `(\w+)` \|)"}; // of the first table
    const std::vector<std::string> documented{
        std::sregex_token_iterator{actions.begin(), actions.end(), row, 1}, std::sregex_token_iterator{}};
    EXPECT_THAT(documented, testing::SizeIs(22));
    EXPECT_THAT(image.exported_names(), testing::UnorderedElementsAreArray(documented));

    const std::regex system_library{
        "(kernel32|msi|msvcrt|advapi32|crypt32|ole32|oleaut32|shell32|shlwapi|user32|userenv|wtsapi32)\\.dll",
        std::regex::icase};
    for (const auto& [from, name, slot, by_number] : image.imports()) {
        EXPECT_TRUE(std::regex_match(from, system_library)) << name << " of " << from;
        EXPECT_NE(name, "") << "an unknown ordinal of " << from;
    }
    constexpr unsigned hardened = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE |
                                  IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                                  IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(image.headers().OptionalHeader.DllCharacteristics & hardened, hardened);
}

} // namespace
} // namespace test_support
