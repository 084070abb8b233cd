// main() of every test program. A crash ends it at once, without a debugger or a dialog.

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <userenv.h>

#include <exception>

int main(int argc, char** argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    // The runtime opens handles with its first exception, and the system with a user's first environment:
    // opens them now, so that no test counts them.
    try {
        throw std::exception{};
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): see above
    }
    custom_actions::kernel_handle token;
    void* environment = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, token.put()) &&
        CreateEnvironmentBlock(&environment, token.get(), FALSE)) {
        DestroyEnvironmentBlock(environment);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
