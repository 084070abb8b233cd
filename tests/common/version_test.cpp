#include "custom_actions/common/version.h"

#include <gtest/gtest.h>

namespace custom_actions {
namespace {

TEST(Version, reads_what_is_there_and_leaves_the_rest_0)
{
    EXPECT_EQ(parse_version(L"1.4.2.7"), (version{1, 4, 2, 7}));
    EXPECT_EQ(parse_version(L"2.5"), (version{2, 5, 0, 0}));
    EXPECT_EQ(parse_version(L"3"), (version{3, 0, 0, 0}));
    EXPECT_EQ(parse_version(L"1.x.2.3"), (version{1, 0, 0, 0}));
    EXPECT_EQ(parse_version(L"1..2"), (version{1, 0, 0, 0}));
    EXPECT_EQ(parse_version(L"-1.4 beta"), (version{-1, 4, 0, 0}));
    EXPECT_EQ(parse_version(L"1.2.3.4.5"), (version{1, 2, 3, 4}));
    EXPECT_EQ(parse_version(L"v1.2"), version{});
    EXPECT_EQ(parse_version(L""), version{});
}

TEST(Version, is_written_in_decimal_with_its_sign)
{
    EXPECT_EQ(to_text({1, 4, 2, 0}), L"1.4.2.0");
    EXPECT_EQ(to_text({-1, 2147483647, 0, 10}), L"-1.2147483647.0.10");
}

TEST(Upgrade, is_minor_while_major_and_minor_number_stay)
{
    struct {
        version installed;
        version offered;
        bool is_minor;
    } const cases[]{
        {{1, 4, 1, 7}, {1, 4, 2, 0}, true},
        {{1, 4, 9, 3}, {1, 4, 0, 0}, true},
        {{1, 4, 2, 0}, {1, 4, 2, 0}, true},
        {{1, 4, 9, 9}, {1, 5, 0, 0}, false},
        {{1, 4, 0, 0}, {1, 3, 0, 0}, false},
        {{2, 4, 0, 0}, {1, 4, 0, 0}, false},
    };

    for (const auto& [installed, offered, is_minor] : cases) {
        EXPECT_EQ(is_minor_upgrade(installed, offered), is_minor)
            << testing::PrintToString(to_text(installed)) << " to "
            << testing::PrintToString(to_text(offered));
    }
}

} // namespace
} // namespace custom_actions
