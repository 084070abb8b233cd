#include "custom_actions/common/path.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

namespace custom_actions {
namespace {

TEST(Path, begins_with_a_drive_or_a_server)
{
    EXPECT_TRUE(is_absolute_path(LR"(\\server\share)"));
    EXPECT_FALSE(is_absolute_path(L"C:a"));
    EXPECT_EQ(parent_folder(LR"(C:\Quorbel.exe)"), LR"(C:\)");
    EXPECT_EQ(normalized_folder(LR"(C:\..\Apps\..)"), LR"(C:\)");
    EXPECT_EQ(normalized_folder(L"//server/share//a.b/"), LR"(\\server\share\a.b)");
}

TEST(Path, is_parsed_like_the_standard_library)
{
    // Random paths below a fixed root, since standard libraries differ in how they parse roots.
    std::mt19937 random{7}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same paths every time
    for (int i = 0; i != 20'000; ++i) {
        std::wstring text = random() % 2 == 0 ? LR"(C:\a)" : L"a";
        for (auto left = random() % 12; left != 0; --left) {
            text += L"\\/...a \u00E9"[random() % 8];
        }
        SCOPED_TRACE(testing::PrintToString(text));
        const std::filesystem::path path{text};
        ASSERT_EQ(is_absolute_path(text), path.is_absolute());
        ASSERT_EQ(file_name(text), path.filename().wstring());
        ASSERT_EQ(file_extension(text), path.extension().wstring());
        ASSERT_EQ(parent_folder(text), path.parent_path().wstring());
        std::filesystem::path normal = path.lexically_normal();
        if (!normal.has_filename() && normal.has_parent_path()) {
            normal = normal.parent_path();
        }
        ASSERT_EQ(normalized_folder(text), normal.make_preferred().wstring());
    }
}

} // namespace
} // namespace custom_actions
