// The smallest possible library: one action that does nothing, inside the same export boundary as ours.

#include "custom_actions/common/export_boundary.h"

#include <stdexcept>

extern "C" UINT __stdcall empty_action(MSIHANDLE session);

UINT __stdcall empty_action(MSIHANDLE session)
{
    return custom_actions::run_harmless_action([&] {
        if (session == 0) { // never true; without a throw the compiler removes the handlers
            throw std::runtime_error{"no session"};
        }
    });
}
