#include "tests/support/faults.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/token.h"
#include "support/pe_image.h"

#include <gtest/gtest.h>
#include <userenv.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <tuple>
#include <vector>

extern "C" LONG NTAPI NtQuerySystemInformation(int what, void* list, ULONG size, ULONG* needed);

namespace test_support {
namespace {

// A crash ends the program at once, without a debugger or a dialog.
[[maybe_unused]] const UINT no_dialog = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);

constexpr std::size_t MOST_HOOKS = 224;
std::array<std::function<word(const words&)>, MOST_HOOKS> answers; // by the index of their stubs

template <std::size_t Index>
word WINAPI
stub(word a, word b, word c, word d, word e, word f, word g, word h, word i, word j, word k, word l)
{
    return answers[Index]({a, b, c, d, e, f, g, h, i, j, k, l});
}

using any_function = decltype(stub<0>);

word exchange(word* slot, word value) noexcept
{
    DWORD protection = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    const word previous = std::exchange(*slot, value);
    VirtualProtect(slot, sizeof *slot, protection, &protection);
    return previous;
}

// The runtime opens handles with its first exception, and the system with a user's first environment: opens
// them, so that no test counts them.
bool open_lasting_handles()
{
    try {
        throw std::exception{};
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): see above
    }
    custom_actions::kernel_handle token;
    void* environment = nullptr;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, token.put()) &&
           CreateEnvironmentBlock(&environment, token.get(), FALSE) && DestroyEnvironmentBlock(environment);
}

[[maybe_unused]] const bool opened = open_lasting_handles(); // before any test

} // namespace

import_hook::import_hook(HMODULE module, const std::string& function, answer to_calls)
{
    static constexpr auto stubs = []<std::size_t... Index>(std::index_sequence<Index...> /*all*/) {
        return std::array<any_function*, MOST_HOOKS>{&stub<Index>...};
    }(std::make_index_sequence<MOST_HOOKS>{});
    const auto imports = pe_image{module}.imports();
    const auto found = std::ranges::find(imports, function, &imported_function::name);
    if (found == imports.end()) {
        throw std::runtime_error{"the module does not import " + function};
    }
    slot_ = found->slot;
    const auto is_free = [](const auto& used) { return !used; };
    index_ = static_cast<std::size_t>(std::ranges::find_if(answers, is_free) - answers.begin());
    answers.at(index_) = [this, to_calls = std::move(to_calls)](const words& all) {
        const std::optional<word> answered = to_calls(*this, all);
        return answered ? *answered : call(all);
    };
    original_ = exchange(slot_, to_word(stubs.at(index_)));
}

import_hook::~import_hook()
{
    exchange(slot_, original_);
    answers[index_] = nullptr;
}

word import_hook::call(const words& arguments) const
{
    return std::apply(from_word<any_function*>(original_), arguments);
}

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

custom_actions::controlled_upgrade::context own_context()
{
    custom_actions::controlled_upgrade::context own{};
    ProcessIdToSessionId(GetCurrentProcessId(), &own.session_id);
    own.user_sid = custom_actions::token_user_sid(GetCurrentProcessToken());
    return own;
}

DWORD open_handles()
{
    // The system's list, since GetProcessHandleCount is always 0 under Wine: the number of entries, a
    // reserved number, and five numbers for each handle, of which the second is its process.
    constexpr int extended_handle_information = 64;
    static std::vector<ULONG_PTR> list(std::size_t{1024} * 1024);
    const auto size = static_cast<ULONG>(list.size() * sizeof list[0]);
    EXPECT_GE(NtQuerySystemInformation(extended_handle_information, list.data(), size, nullptr), 0);
    DWORD count = 0;
    for (std::size_t process = 3; process < 2 + list[0] * 5; process += 5) {
        count += list[process] == GetCurrentProcessId() ? 1U : 0U;
    }
    EXPECT_NE(count, 0U) << "the list is not what it was taken for";
    return count;
}

} // namespace test_support
