#include "tests/support/faults.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <exception>
#include <span>
#include <stdexcept>
#include <vector>

namespace test_support {
namespace {

// An entry and the head of SystemExtendedHandleInformation.
struct handle_entry {
    void* object;
    ULONG_PTR process;
    ULONG_PTR others[3];
};

struct handle_list_head {
    ULONG_PTR count;
    ULONG_PTR reserved;
};

// Counts this process's handles in the system's list, since GetProcessHandleCount is always 0 under Wine.
DWORD listed_handles()
{
    constexpr int extended_handle_information = 64;
    using query = LONG NTAPI(int, void*, ULONG, ULONG*); // NtQuerySystemInformation
    static const auto ask =
        std::bit_cast<query*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
    static std::vector<std::byte> list(std::size_t{1024} * 1024);
    if (ask(extended_handle_information, list.data(), static_cast<ULONG>(list.size()), nullptr) < 0) {
        throw std::runtime_error{"the handles cannot be counted"};
    }
    const auto* const head = reinterpret_cast<const handle_list_head*>(list.data());
    const std::span handles{reinterpret_cast<const handle_entry*>(head + 1), head->count};
    return static_cast<DWORD>(
        std::ranges::count(handles, ULONG_PTR{GetCurrentProcessId()}, &handle_entry::process));
}

} // namespace

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
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count != 0 ? count : listed_handles();
}

} // namespace test_support
