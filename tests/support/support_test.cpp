// The tests' own tools: what every other test leans on.

#include "tests/support/child_process.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_sandbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <string>

namespace test_support {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// The faults that a test may have; each runs in a process of its own, started by the cases below.
TEST(Fault, DISABLED_hangs)
{
    Sleep(INFINITE);
}

TEST(Fault, DISABLED_crashes)
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

TEST(Fault, DISABLED_aborts)
{
    std::abort();
}

TEST(Fault, DISABLED_loses_an_exception)
{
    throw std::runtime_error{"of the test"};
}

struct fault {
    const char* name;
    const char* report;
};

void PrintTo(const fault& tested, std::ostream* out)
{
    *out << tested.name;
}

class BrokenTest : public testing::TestWithParam<fault> {};

TEST_P(BrokenTest, ends_at_once_with_its_name)
{
    SetEnvironmentVariableW(L"TEST_LIMIT_MS", L"300");
    const std::string name = std::string{"Fault.DISABLED_"} + GetParam().name;
    const std::wstring command = L"\"" + this_program() +
                                 L"\" --gtest_also_run_disabled_tests --gtest_filter=" +
                                 std::wstring{name.begin(), name.end()};
    const child_result child = run_child(command, 30s);
    SetEnvironmentVariableW(L"TEST_LIMIT_MS", nullptr);

    EXPECT_EQ(child.exit_code, 3U);
    EXPECT_THAT(child.output, HasSubstr("[  BROKEN  ] " + name + ": " + GetParam().report));
}

INSTANTIATE_TEST_SUITE_P(
    Faults,
    BrokenTest,
    testing::Values(
        fault{"hangs", "over its time limit"},
        fault{"crashes", "crashed, 0xC0000005"},
        fault{"aborts", "aborted"},
        fault{"loses_an_exception", "lost an exception: of the test"}),
    [](const auto& tested) { return std::string{tested.param.name}; });

DWORD WINAPI seven()
{
    return 7;
}

DWORD ask_for_process_id()
{
    return GetCurrentProcessId();
}

// Within one function a compiler may read an import once for several calls; this keeps the calls below apart.
DWORD (*volatile process_id)() = ask_for_process_id;

TEST(ImportPatch, redirects_the_calls_of_one_module_until_its_scope_ends)
{
    const DWORD real = process_id();
    {
        const import_patch<decltype(GetCurrentProcessId)> patch{
            GetModuleHandleW(nullptr), "GetCurrentProcessId", seven};
        EXPECT_EQ(process_id(), 7U);
        EXPECT_EQ(patch.original()(), real);
    }
    EXPECT_EQ(process_id(), real);
}

TEST(ImportPatch, refuses_a_function_that_the_module_does_not_import)
{
    const auto patch = [] {
        const import_patch<decltype(seven)> refused{GetModuleHandleW(nullptr), "NoSuchFunction", seven};
    };
    EXPECT_THROW(patch(), std::runtime_error);
}

bool key_exists(HKEY root, const wchar_t* path)
{
    custom_actions::registry_key_handle key;
    return RegOpenKeyExW(root, path, 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

TEST(RegistrySandbox, starts_empty_and_leaves_nothing)
{
    ASSERT_TRUE(key_exists(HKEY_LOCAL_MACHINE, L"SOFTWARE"));
    for (int run = 0; run != 2; ++run) {
        const registry_sandbox machine{HKEY_LOCAL_MACHINE};
        const registry_sandbox user{HKEY_CURRENT_USER};
        for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
            EXPECT_FALSE(key_exists(root, L"SOFTWARE"));
            EXPECT_FALSE(key_exists(root, L"Sandboxed\\Key"));
            custom_actions::registry_key_handle key;
            EXPECT_EQ(RegCreateKeyW(root, L"Sandboxed\\Key", key.put()), ERROR_SUCCESS);
            EXPECT_TRUE(key_exists(root, L"Sandboxed\\Key"));
        }
    }
    EXPECT_TRUE(key_exists(HKEY_LOCAL_MACHINE, L"SOFTWARE"));
    EXPECT_FALSE(key_exists(HKEY_LOCAL_MACHINE, L"Sandboxed"));
    EXPECT_FALSE(key_exists(HKEY_CURRENT_USER, L"Sandboxed"));
    const std::wstring scratch = L"Software\\QuorbelTests\\" + std::to_wstring(GetCurrentProcessId()) + L"-";
    EXPECT_FALSE(key_exists(HKEY_CURRENT_USER, (scratch + L"1").c_str()));
    EXPECT_FALSE(key_exists(HKEY_CURRENT_USER, (scratch + L"2").c_str()));
}

} // namespace
} // namespace test_support
