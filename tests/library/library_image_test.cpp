// The library as it is shipped: what it exports, what it needs, how it is linked.

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

// The first group of `pattern` in every line of the project's file that matches it.
std::vector<std::string> matching_lines(const std::string& path, const std::regex& pattern)
{
    std::ifstream file{SOURCE_DIR + path};
    std::vector<std::string> found;
    for (std::string line; std::getline(file, line);) {
        if (std::smatch match; std::regex_search(line, match, pattern)) {
            found.push_back(match[1]);
        }
    }
    return found;
}

TEST(LibraryImage, exports_exactly_the_actions_of_the_definition_and_of_the_documents)
{
    const loaded_library library;
    const auto exported = pe_image{library.module()}.exported_names();
    const auto defined = matching_lines("/custom_actions/custom_actions.def", std::regex{"^    (\\w+)\\s*$"});
    EXPECT_THAT(exported, testing::SizeIs(22));
    EXPECT_THAT(exported, testing::UnorderedElementsAreArray(defined));
    EXPECT_EQ(matching_lines("/docs/actions.md", std::regex{R"(^\| `(\w+)` \|)"}), defined)
        << "a row for each action, in the definition's order";
}

TEST(LibraryImage, needs_nothing_but_the_system_and_is_hardened)
{
    const loaded_library library;
    const pe_image image{library.module()};
    const std::regex of_the_system{
        "(kernel32|msi|msvcrt|advapi32|crypt32|ole32|oleaut32|shell32|shlwapi|user32|userenv|wtsapi32)\\.dll",
        std::regex::icase};
    for (const auto& [from, name, slot] : image.imports()) {
        EXPECT_TRUE(std::regex_match(from, of_the_system)) << name << " of " << from;
        EXPECT_NE(name, "") << "an import by ordinal from " << from;
    }
    constexpr unsigned hardened = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE |
                                  IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                                  IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(image.headers().OptionalHeader.DllCharacteristics & hardened, hardened);
}

} // namespace
} // namespace test_support
