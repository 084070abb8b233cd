#include "tests/support/faults.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <gtest/gtest.h>

#include <exception>

namespace test_support {
std::string thrown_by(const std::function<void()>& call)
{
    const DWORD handles = open_handles();
    std::string thrown;
    try {
        call();
    } catch (const custom_actions::windows_error& error) {
        thrown = std::string{error.what()} + " (" + std::to_string(error.code()) + ")";
    } catch (const std::exception& error) {
        thrown = error.what();
    }
    EXPECT_EQ(open_handles(), handles) << thrown;
    EXPECT_FALSE(thread_is_impersonating()) << thrown;
    return thrown;
}

bool thread_is_impersonating()
{
    custom_actions::kernel_handle token;
    return OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()) != FALSE;
}

DWORD open_handles()
{
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count != 0) {
        return count;
    }
    // Wine does not count them, but gives out the lowest free one: each that is left open moves the next one
    // on.
    const custom_actions::kernel_handle next{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    return static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(next.get()));
}

} // namespace test_support
