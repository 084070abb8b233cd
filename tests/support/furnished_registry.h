#pragma once

#include <windows.h>

namespace test_support {

enum class origin {
    others, // what other vendors and the user have written, which removal must leave or bring back
    suite,  // what is there instead or besides while the suite is installed, which removal must take away
};

// Plants all of this origin that belongs in the hive: HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER.
void plant(origin from, HKEY hive);

} // namespace test_support
