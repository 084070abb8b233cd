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
    std::vector<std::string> documented; // one in each row of the first table
    std::ifstream file{SOURCE_DIR "/docs/actions.md"};
    const std::regex row{R"(^\| `(\w+)` \|.*)"};
    for (std::string line; std::getline(file, line);) {
        if (std::smatch match; std::regex_match(line, match, row)) {
            documented.push_back(match[1]);
        }
    }
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
