#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_lists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

namespace custom_actions {
namespace {

struct change {
    const char* list;
    std::optional<std::string> changed;
};

TEST(PropertyLists, append_the_place_to_an_infotip_once)
{
    for (const auto& [list, changed] :
         {change{"prop:A;B", "prop:A;B;System.Calendar.Location"},
          change{"prop:A;System.Calendar.LocationOfMine", std::nullopt},
          change{"System.Calendar.Location", std::nullopt},
          change{"", std::nullopt}}) {
        EXPECT_EQ(with_infotip_extra(list), changed) << list;
    }
}

TEST(PropertyLists, insert_right_after_the_anchor)
{
    for (const auto& [list, changed] :
         {change{"prop:System.PropGroup.Description;A", "prop:System.PropGroup.Description;X.Y;A"},
          change{"prop:System.PropGroup.Description;X.YZ", std::nullopt},
          change{"prop:System.PropGroup.Description", std::nullopt},
          change{"prop:A;B", std::nullopt},
          change{"", std::nullopt}}) {
        EXPECT_EQ(with_full_details_extra(list, "X.Y"), changed) << list;
    }
}

TEST(PropertyLists, take_the_place_out_of_an_infotip_with_one_separator)
{
    for (const auto& [list, changed] :
         {change{"prop:A;System.Calendar.Location;B", "prop:A;B"},
          change{"System.Calendar.Location;B;System.Calendar.Location", "System.Calendar.Location;B"},
          change{"System.Calendar.Location;B", "B"},
          change{"prop:System.Calendar.Location", "prop:"},
          change{"System.Calendar.Location", ""},
          change{"prop:A", std::nullopt},
          change{"", std::nullopt}}) {
        EXPECT_EQ(without_infotip_extra(list), changed) << list;
    }
}

TEST(PropertyLists, take_a_property_out_of_the_full_details_where_a_separator_follows)
{
    for (const auto& [list, changed] :
         {change{"prop:X.Y;A;X.Y;", "prop:A;X.Y;"},
          change{"prop:A;X.Y", std::nullopt},
          change{"", std::nullopt}}) {
        EXPECT_EQ(without_full_details_extra(list, "X.Y"), changed) << list;
    }
}

TEST(FileTypeTables, name_no_override_and_no_extra_for_a_type_without_the_handler)
{
    const auto has_handler = [](std::string_view extension) {
        return std::ranges::find(PROPERTY_HANDLER_EXTENSIONS, extension) != PROPERTY_HANDLER_EXTENSIONS.end();
    };
    EXPECT_TRUE(std::ranges::all_of(FORCE_OVERRIDE_EXTENSIONS, has_handler));
    EXPECT_TRUE(std::ranges::all_of(EXTENDED_DETAILS_EXTENSIONS, has_handler));
    EXPECT_EQ(PROPERTY_HANDLER_EXTENSIONS.size(), 64U);
    for (const auto& [first, second] : {std::pair{".gif", ".gfie"}, std::pair{".log", ".lnx"}}) {
        EXPECT_EQ(*std::next(std::ranges::find(PROPERTY_HANDLER_EXTENSIONS, first)), second) << "not sorted";
    }
    EXPECT_EQ(PROPERTY_HANDLER_EXTENSIONS.back(), ".mp3");
}

} // namespace
} // namespace custom_actions
