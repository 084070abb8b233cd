#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace test_support {

enum class origin {
    others, // what other vendors and the user have written, which removal must leave or bring back
    suite,  // what is there instead or besides while the suite is installed, which removal must take away
};

// Plants all of this origin that belongs in the hive: HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER.
void plant(origin from, HKEY hive);

// The keys in the hive with another vendor's handler or icon that is neither in its place nor in a backup any
// more, as "(loses PATH)". Fails the test if none of `failed_keys` is such a key.
std::wstring lost(HKEY hive, const std::vector<std::wstring>& failed_keys);

} // namespace test_support
