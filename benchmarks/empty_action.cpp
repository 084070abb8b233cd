// The least that an action's library can be: one action in the frame that all of ours have, which does
// nothing.

#include "custom_actions/common/export_boundary.h"

#include <stdexcept>

extern "C" UINT __stdcall empty_action(MSIHANDLE session);

UINT __stdcall empty_action(MSIHANDLE session)
{
    return custom_actions::run_harmless_action([&] {
        if (session == 0) { // never; something must be able to throw, or the compiler takes the frame away
            throw std::runtime_error{"no session"};
        }
    });
}
