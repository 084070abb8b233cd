#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/processes/hook_release.h"
#include "custom_actions/processes/process_inventory.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/toy_suite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <functional>
#include <string>

namespace custom_actions {
namespace {

using namespace std::chrono_literals;
using test_support::call_fault;
using test_support::failing_import;
using test_support::thrown_by;
using test_support::toy_library;
using test_support::toy_process;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

TEST(ModulePattern, has_to_fit_the_whole_name)
{
    struct {
        const wchar_t* name;
        const wchar_t* pattern;
        bool fits;
    } const cases[]{
        {L"Quorbel.WindowOrganizer.x64.dll", L"Quorbel.WindowOrganizer*.dll", true},
        {L"QUORBEL.windoworganizer.DLL", L"Quorbel.WindowOrganizer*.dll", true},
        {L"Quorbel.WindowOrganizer.dll.bak", L"Quorbel.WindowOrganizer*.dll", false},
        {L"Quorbel.WindowOrganizer.dll.dll", L"Quorbel.WindowOrganizer*.dll", true},
        {L"Quorbel.WindowOrganize.dll", L"Quorbel.WindowOrganizer*.dll", false},
        {L"My.Quorbel.WindowOrganizer.dll", L"Quorbel.WindowOrganizer*.dll", false},
        {L"abcbcd", L"a*bc*d", true},
        {L"abcb", L"a*bc", false},
        {L"\u00C4.dll", L"\u00E4.dll", false},
        {L"a?c", L"a?c", true},
        {L"abc", L"a?c", false},
        {L"anything", L"**", true},
        {L"", L"*", true},
        {L"", L"a", false},
        {L"a", L"", false},
    };

    for (const auto& [name, pattern, fits] : cases) {
        EXPECT_EQ(matches_module_pattern(name, pattern), fits) << testing::PrintToString(std::wstring{name});
    }
}

class ProcessInventory : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP()
                << "starts programs with the suite's names: set DISPOSABLE_MACHINE where that may be";
        }
    }
};

TEST_F(ProcessInventory, finds_programs_by_name_in_any_letters)
{
    const toy_process first{L"Quorbel.exe", L"--window=none"};
    const toy_process second{L"QUORBEL.PASTE.EXE", L"--window=none"};
    const toy_process other{L"Quorbel.exe.exe", L"--window=none"};
    const process_list found = find_processes_by_image(our_process_images(), listing::strict);
    EXPECT_THAT(found, testing::UnorderedElementsAre(first.id(), second.id()));
    EXPECT_THAT(find_processes_by_image({L"no such program.exe"}, listing::strict), IsEmpty());
}

TEST_F(ProcessInventory, finds_hosts_by_what_they_have_loaded)
{
    const toy_process host{
        L"dllhost.exe", L"--window=none --load=" + toy_library(L"Quorbel.Plexa.ShellExtension.dll")};
    const toy_process hook{
        L"explorer.exe", L"--window=none --load=" + toy_library(L"QUORBEL.WindowOrganizer.x64.dll")};
    const toy_process bystander{L"dllhost.exe", L"--window=none"};
    EXPECT_THAT(
        find_shell_hosts(shell_host_images(), our_shell_modules()),
        testing::UnorderedElementsAre(host.id(), hook.id()));
    EXPECT_THAT(find_hook_hosts(), ElementsAre(hook.id()));
    EXPECT_FALSE(process_has_module(bystander.id(), our_shell_modules(), listing::strict));
}

TEST_F(ProcessInventory, leaves_the_calling_process_out)
{
    const HMODULE hook = LoadLibraryW(toy_library(L"Quorbel.WindowOrganizer.own.dll").c_str());
    EXPECT_TRUE(process_has_module(GetCurrentProcessId(), our_shell_modules(), listing::strict));
    EXPECT_THAT(
        find_processes_by_image({L"custom_actions_tests.exe"}, listing::strict),
        Contains(GetCurrentProcessId()));
    EXPECT_THAT(
        find_shell_hosts({L"custom_actions_tests.exe"}, our_shell_modules()),
        Not(Contains(GetCurrentProcessId())));
    EXPECT_THAT(find_hook_hosts(), IsEmpty());
    FreeLibrary(hook);
}

TEST_F(ProcessInventory, sees_no_modules_in_a_process_that_has_gone)
{
    DWORD gone = 0;
    {
        const toy_process toy{L"Quorbel.exe"};
        gone = toy.id();
    }
    // A process that has just ended can still be looked up for a moment, and denies access.
    while (const kernel_handle ended{OpenProcess(SYNCHRONIZE, FALSE, gone)}) {
        Sleep(20);
    }
    Sleep(300);
    EXPECT_FALSE(process_has_module(gone, our_shell_modules(), listing::strict));
}

// Lists with the fault once strictly and once leniently; returns what the strict listing threw.
template <class Fault>
std::string strict_message(const std::function<void(listing)>& list, const Fault& make_fault)
{
    {
        const auto fault = make_fault();
        EXPECT_EQ(thrown_by([&] { list(listing::lenient); }), "");
    }
    const auto fault = make_fault();
    return thrown_by([&] { list(listing::strict); });
}

#define FAULT(function, result, ...)                                                                         \
    [] {                                                                                                     \
        return failing_import<#function, decltype(function)>{                                                \
            module_under_test(), result, call_fault __VA_ARGS__};                                            \
    }

TEST(ProcessListing, tells_of_every_call_that_fails_when_it_is_strict)
{
    const auto list = [](listing how) { find_processes_by_image({L"none"}, how); };
    EXPECT_EQ(
        strict_message(list, FAULT(CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {ERROR_ACCESS_DENIED})),
        "Cannot snapshot processes (5)");
    EXPECT_EQ(
        strict_message(list, FAULT(Process32FirstW, FALSE, {ERROR_ACCESS_DENIED})),
        "Cannot enumerate processes (5)");
    EXPECT_EQ(strict_message(list, FAULT(Process32FirstW, FALSE, {ERROR_NO_MORE_FILES})), "");
    EXPECT_EQ(
        strict_message(list, FAULT(Process32NextW, FALSE, {ERROR_ACCESS_DENIED, 2})),
        "Process enumeration incomplete (5)");
}

TEST(ProcessListing, keeps_what_it_has_when_it_breaks_off_leniently)
{
    const auto image = find_processes_by_image({L"custom_actions_tests.exe"}, listing::strict);
    const failing_import<"Process32NextW", decltype(Process32NextW)> fault{
        module_under_test(), FALSE, {ERROR_ACCESS_DENIED, 1000}};
    EXPECT_EQ(find_processes_by_image({L"custom_actions_tests.exe"}, listing::lenient), image);
}

TEST(ModuleListing, tells_of_every_call_that_fails_when_it_is_strict)
{
    const std::string id = std::to_string(GetCurrentProcessId());
    const auto list = [](listing how) {
        EXPECT_FALSE(process_has_module(GetCurrentProcessId(), {L"none"}, how));
    };
    EXPECT_EQ(
        strict_message(list, FAULT(CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {ERROR_ACCESS_DENIED})),
        "Cannot inspect host PID " + id + " (5)");
    EXPECT_EQ(
        strict_message(
            list, FAULT(CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {ERROR_INVALID_PARAMETER})),
        "");
    EXPECT_EQ(
        strict_message(list, FAULT(CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {ERROR_BAD_LENGTH, 1, 3})),
        "Unstable modules for PID " + id + " (24)");
    EXPECT_EQ(
        strict_message(list, FAULT(CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, {ERROR_BAD_LENGTH, 1, 2})),
        "")
        << "the third attempt succeeds";
    EXPECT_EQ(
        strict_message(list, FAULT(Module32FirstW, FALSE, {ERROR_ACCESS_DENIED})),
        "Cannot read modules for PID " + id + " (5)");
    EXPECT_EQ(
        strict_message(list, FAULT(Module32NextW, FALSE, {ERROR_ACCESS_DENIED, 2})),
        "Incomplete modules for PID " + id + " (5)");

    const failing_import<"CreateToolhelp32Snapshot", decltype(CreateToolhelp32Snapshot)> fault{
        module_under_test(), INVALID_HANDLE_VALUE, {ERROR_BAD_LENGTH, 1, 0}};
    EXPECT_FALSE(process_has_module(GetCurrentProcessId(), {L"none"}, listing::lenient));
    EXPECT_EQ(fault.calls(), 3U);
}

} // namespace
} // namespace custom_actions
