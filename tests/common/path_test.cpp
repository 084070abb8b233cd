#include "custom_actions/common/path.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <random>
#include <string>

namespace custom_actions {
namespace {

TEST(Path, is_taken_apart_and_normalised)
{
    struct {
        const wchar_t* path;
        bool absolute;
        const wchar_t* parent;
        const wchar_t* extension;
        const wchar_t* folder; // normalised
    } const cases[]{
        {LR"(C:\Apps\\.\x\..\Suite\.)", true, LR"(C:\Apps\\.\x\..\Suite)", L"", LR"(C:\Apps\Suite)"},
        {LR"(C:\a.exe:b.txt)", true, LR"(C:\)", L".exe", LR"(C:\a.exe:b.txt)"},
        {LR"(C:a\..\..\b)", false, LR"(C:a\..\..)", L"", LR"(C:..\b)"},
        {LR"(1:\a)", false, L"1:", L"", LR"(1:\a)"},
        {L"//server/share//a.b/", true, L"//server/share//a.b", L"", LR"(\\server\share\a.b)"},
        {LR"(\\\server\a)", false, LR"(\\\server)", L"", LR"(\server\a)"},
    };

    for (const auto& [path, absolute, parent, extension, folder] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring{path}));
        EXPECT_EQ(is_absolute_path(path), absolute);
        EXPECT_EQ(parent_folder(path), parent);
        EXPECT_EQ(file_extension(path), extension);
        EXPECT_EQ(normalized_folder(path), folder);
    }
}

TEST(Path, is_read_as_the_standard_library_reads_it)
{
    static constexpr std::array<const wchar_t*, 2> roots{LR"(C:\a)", L"a"};
    // Beyond the root, in whose form the libraries differ.
    std::mt19937 random{7}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts every time
    for (int i = 0; i != 20'000; ++i) {
        std::wstring text = roots[random() % roots.size()];
        for (auto left = random() % 12; left != 0; --left) {
            text += L"\\/...a \u00E9"[random() % 8];
        }
        SCOPED_TRACE(testing::PrintToString(text));
        const std::filesystem::path path{text};
        EXPECT_EQ(is_absolute_path(text), path.is_absolute());
        EXPECT_EQ(file_name(text), path.filename().wstring());
        EXPECT_EQ(file_extension(text), path.extension().wstring());
        EXPECT_EQ(parent_folder(text), path.parent_path().wstring());
        std::filesystem::path normal = path.lexically_normal();
        if (!normal.has_filename() && normal.has_parent_path()) {
            normal = normal.parent_path();
        }
        EXPECT_EQ(normalized_folder(text), normal.make_preferred().wstring());
        if (HasFailure()) {
            break;
        }
    }
}

} // namespace
} // namespace custom_actions
