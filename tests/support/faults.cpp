#include "tests/support/faults.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <gtest/gtest.h>
#include <winternl.h>

#include <bit>
#include <cstddef>
#include <exception>
#include <stdexcept>
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
    // From the system's list of processes, since Wine answers GetProcessHandleCount with 0 always.
    static const auto ask = std::bit_cast<decltype(NtQuerySystemInformation)*>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
    static std::vector<std::byte> list(std::size_t{1024} * 1024);
    if (ask(SystemProcessInformation, list.data(), static_cast<ULONG>(list.size()), nullptr) < 0) {
        throw std::runtime_error{"the handles cannot be counted"};
    }
    const auto* process = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(list.data());
    while (process->UniqueProcessId != ULongToHandle(GetCurrentProcessId())) {
        process = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(
            reinterpret_cast<const std::byte*>(process) + process->NextEntryOffset);
    }
    return process->HandleCount;
}

} // namespace test_support
