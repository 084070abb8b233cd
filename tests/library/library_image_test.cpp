// The library as it is shipped: what it exports, what it needs, how it is linked.

#include "custom_actions/common/scoped_handle.h"
#include "tests/support/loaded_library.h"
#include "tests/support/pe_image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <winver.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace test_support {
namespace {

using testing::IsSupersetOf;

class LibraryImage : public testing::Test {
protected:
    loaded_library library;
    pe_image image{library.module()};
};

// The first group of `pattern` in every line of the file that matches it.
std::vector<std::string> matching_lines(const char* path, const std::regex& pattern)
{
    std::ifstream file{path};
    EXPECT_TRUE(file.is_open()) << path;
    std::vector<std::string> found;
    for (std::string line; std::getline(file, line);) {
        if (std::smatch match; std::regex_search(line, match, pattern)) {
            found.push_back(match[1]);
        }
    }
    return found;
}

TEST_F(LibraryImage, exports_exactly_the_actions_of_the_definition_and_of_the_documents)
{
    const auto exported = image.exported_names();
    const auto defined =
        matching_lines(SOURCE_DIR "/custom_actions/custom_actions.def", std::regex{"^    (\\w+)\\s*$"});
    const auto documented = matching_lines(SOURCE_DIR "/docs/actions.md", std::regex{R"(^\| `(\w+)` \|)"});
    EXPECT_FALSE(exported.empty());
    EXPECT_THAT(defined, testing::UnorderedElementsAreArray(exported));
    EXPECT_EQ(documented, defined) << "docs/actions.md has a row for each action, in the definition's order";
    EXPECT_EQ(image.export_count(), exported.size()) << "an export without a name";
}

TEST_F(LibraryImage, needs_nothing_but_the_libraries_of_the_system)
{
    std::set<std::string> needed;
    for (const auto& import : image.imports()) {
        std::string name = import.library;
        std::ranges::transform(
            name, name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        needed.insert(name);
        EXPECT_NE(import.name, "") << "an import by ordinal from " << name;
    }
    EXPECT_THAT(
        (std::set<std::string>{
            "kernel32.dll",
            "msi.dll",
            "msvcrt.dll",
            "advapi32.dll",
            "crypt32.dll",
            "ole32.dll",
            "oleaut32.dll",
            "shell32.dll",
            "shlwapi.dll",
            "user32.dll",
            "userenv.dll",
            "wtsapi32.dll"}),
        IsSupersetOf(needed));
}

TEST_F(LibraryImage, is_hardened)
{
    const auto& headers = image.headers();
    constexpr unsigned expected = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE |
                                  IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                                  IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(headers.OptionalHeader.DllCharacteristics & expected, expected);
    EXPECT_EQ(headers.FileHeader.Characteristics & IMAGE_FILE_RELOCS_STRIPPED, 0)
        << "address randomisation needs relocations";
    EXPECT_NE(headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BASERELOC].Size, 0U);
    for (const auto& section : image.sections()) {
        constexpr DWORD both = IMAGE_SCN_MEM_WRITE | IMAGE_SCN_MEM_EXECUTE;
        EXPECT_NE(section.Characteristics & both, both)
            << std::string{reinterpret_cast<const char*>(section.Name), 8} << " is writable code";
    }
}

TEST_F(LibraryImage, carries_its_version)
{
    const std::wstring path = library.path();
    DWORD ignored = 0;
    std::vector<std::byte> block(GetFileVersionInfoSizeW(path.c_str(), &ignored));
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()));
    void* found = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", &found, &length));
    const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(found);
    EXPECT_EQ(fixed->dwFileVersionMS, DWORD{VERSION_MAJOR << 16 | VERSION_MINOR});
    EXPECT_EQ(fixed->dwFileVersionLS, DWORD{VERSION_PATCH << 16});
    ASSERT_TRUE(
        VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\OriginalFilename", &found, &length));
    EXPECT_STREQ(static_cast<const wchar_t*>(found), L"custom_actions.dll");
}

} // namespace
} // namespace test_support
