#include "tests/support/faults.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <gtest/gtest.h>

#include <bit>
#include <exception>
#include <vector>

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
    // The system's list, since GetProcessHandleCount is always 0 under Wine: the number of entries, a
    // reserved number, and five numbers for each handle, of which the second is its process.
    constexpr int extended_handle_information = 64;
    using query = LONG NTAPI(int, void*, ULONG, ULONG*);
    static const auto ask =
        std::bit_cast<query*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
    static std::vector<ULONG_PTR> list(std::size_t{1024} * 1024);
    const auto size = static_cast<ULONG>(list.size() * sizeof list[0]);
    EXPECT_GE(ask(extended_handle_information, list.data(), size, nullptr), 0);
    DWORD count = 0;
    for (std::size_t process = 3; process < 2 + list[0] * 5; process += 5) {
        count += list[process] == GetCurrentProcessId() ? 1U : 0U;
    }
    return count;
}

} // namespace test_support
