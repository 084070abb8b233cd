// The actions of the built library with a service that is played, and the start type of one that is real.

#include "custom_actions/search/search_service.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"
#include "tests/support/played_clock.h"
#include "tests/support/scripted_session.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

constexpr const char* DECIDE = "capture_search_state";
constexpr const char* STOP = "stop_search";
constexpr const char* START = "restore_search";

constexpr const wchar_t* WAS_RUNNING = L"Windows Search was running; transactional stop/restore scheduled.";
constexpr const wchar_t* WAS_NOT = L"Windows Search stopped or absent; leave unchanged.";
constexpr const wchar_t* STOPPED = L"Windows Search stopped before file changes.";
constexpr const wchar_t* RESTORED = L"Windows Search restored to running.";
constexpr const wchar_t* NEITHER = L"Windows Search must be running or stopped before installation";
constexpr const wchar_t* NEEDS_ROLLBACK = L"Rollback must be enabled for Search lifetime handling";
constexpr const wchar_t* UNREADABLE = L"Cannot read Search state";
constexpr const wchar_t* NO_ANSWER = L"Cannot query Windows Search";

class SearchActions : public testing::Test {
protected:
    // The action's only message: a log line of a success, an error of a failure; "" where there is none.
    std::wstring call(const char* action, const std::wstring& data = L"running")
    {
        done.clear();
        session.set_property(L"CustomActionData", data);
        const std::size_t before = session.messages().size();
        const UINT result = library.call(action, session.handle());
        if (session.messages().size() == before) {
            EXPECT_EQ(result, 0U);
            return L"";
        }
        EXPECT_EQ(session.messages().size(), before + 1);
        const auto& [type, text] = session.messages().back();
        EXPECT_EQ(result, type == 0x04000000 ? 0U : 1603U);
        return text;
    }

    void expect_decisions(const std::optional<std::wstring>& word)
    {
        for (const wchar_t* action : {L"stop_search", L"rollback_search", L"restore_search"}) {
            EXPECT_EQ(session.property(action), word);
        }
    }

    std::optional<BOOL> ask(const char* what)
    {
        done += what;
        SetLastError(refusal);
        return refusal == 0;
    }

    // What it is seen to be, in turn; the last one stays. 0 is nothing, since nobody can tell, and no state
    // at all a service that is not installed.
    std::vector<DWORD> states{SERVICE_RUNNING};
    std::function<void(SERVICE_STATUS_PROCESS&)> play = [](auto&) {}; // what else it is seen to be

    DWORD refusal = 0; // how it answers what it is asked to do
    std::string done;  // the access with which it was opened, and what it was asked

    loaded_library library;
    scripted_session session{library.module()};
    played_clock clock{library.module()};
    intercepted_import<"OpenServiceW", decltype(OpenServiceW)> open{
        library.module(), [this](SC_HANDLE, LPCWSTR name, DWORD access) {
            EXPECT_EQ(std::wstring{name}, L"WSearch");
            done += std::to_string(access);
            SetLastError(refusal != 0 ? refusal : ERROR_SERVICE_DOES_NOT_EXIST);
            return std::optional{
                states.empty() ? nullptr : OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)};
        }};
    intercepted_import<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)> query{
        library.module(), [this](SC_HANDLE, SC_STATUS_TYPE, LPBYTE status, DWORD, LPDWORD) {
            auto& seen = *reinterpret_cast<SERVICE_STATUS_PROCESS*>(status);
            seen = {};
            seen.dwCurrentState = states.front();
            states.erase(states.begin(), states.begin() + (states.size() > 1 ? 1 : 0));
            play(seen);
            return std::optional<BOOL>{seen.dwCurrentState != 0};
        }};
    intercepted_import<"ControlService", decltype(ControlService)> control{
        library.module(), [this](SC_HANDLE, DWORD code, LPSERVICE_STATUS) {
            return ask(code == SERVICE_CONTROL_STOP ? " stop" : " something else");
        }};
    intercepted_import<"StartServiceW", decltype(StartServiceW)> start{
        library.module(), [this](SC_HANDLE, DWORD, LPCWSTR*) { return ask(" start"); }};
};

TEST_F(SearchActions, ask_the_service_for_what_it_does_not_do_by_itself)
{
    struct {
        const char* action;
        std::vector<DWORD> seen; // 1 is stopped, 2 starting, 3 stopping, 4 running, 7 paused
        DWORD refusal;
        const char* done;
        const wchar_t* told;
    } const cases[]{
        {DECIDE, {4}, 0, "4", WAS_RUNNING},
        {DECIDE, {1}, 0, "4", WAS_NOT},
        {DECIDE, {}, 0, "4", WAS_NOT},
        {DECIDE, {}, 5, "4", L"Cannot open Windows Search"},
        {DECIDE, {3}, 0, "4", NEITHER},
        {DECIDE, {7}, 0, "4", NEITHER},
        {STOP, {4, 4, 3, 3, 1}, 0, "36 stop", STOPPED},
        {STOP, {7, 7, 1}, 0, "36 stop", STOPPED},
        {STOP, {3, 3, 3, 1}, 0, "36", STOPPED},
        {STOP, {1}, 0, "36", STOPPED},
        {STOP, {}, 0, "36", L"Windows Search disappeared before stop"},
        {STOP, {4}, 5, "36 stop", L"Cannot stop Windows Search"},
        {STOP, {4, 3, 3, 0}, 0, "36 stop", NO_ANSWER},
        {START, {1, 1, 2, 2, 4}, 0, "20 start", RESTORED},
        {START, {3, 3, 3, 1, 1, 1, 4}, 0, "20 start", RESTORED},
        {START, {3, 3, 1, 4}, 0, "20", RESTORED}, // somebody else has started it
        {START, {1, 2, 4}, 1056, "20 start", RESTORED},
        {START, {4}, 0, "20", RESTORED},
        {START, {}, 0, "20", L"Windows Search disappeared before restore"},
        {START, {1}, 1058, "20 start", L"Cannot restart Windows Search"},
        {START, {3, 3, 1, 0}, 0, "20", NO_ANSWER},
    };

    for (const auto& tested : cases) {
        SCOPED_TRACE(tested.action + testing::PrintToString(tested.seen));
        states = tested.seen;
        refusal = tested.refusal;
        EXPECT_EQ(call(tested.action), tested.told);
        EXPECT_EQ(done, tested.done);
        EXPECT_LE(states.size(), 1U) << "it was not looked at to the end";
    }
}

TEST_F(SearchActions, give_up_after_a_minute_or_without_progress)
{
    struct {
        DWORD hint;
        long rate;           // of the check point, in a second
        long paused_till;    // and stop pending from there on
        const wchar_t* told; // behind the time-out's "expected=1 "
    } const cases[]{
        {999, 0, 0, L"state=3 pid=4242 checkpoint=100 hint=999 elapsed=30000"},
        {1000, 0, 0, L"state=3 pid=4242 checkpoint=100 hint=1000 elapsed=1000"},
        {30'000, 0, 0, L"state=3 pid=4242 checkpoint=100 hint=30000 elapsed=30000"},
        {30'001, 0, 0, L"state=3 pid=4242 checkpoint=100 hint=30001 elapsed=30000"},
        {5000, 1, 0, L"state=3 pid=4242 checkpoint=160 hint=5000 elapsed=60000"},
        {5000, -1, 0, L"state=3 pid=4242 checkpoint=95 hint=5000 elapsed=5000"},
        {5000, 0, 2000, L"state=3 pid=4242 checkpoint=100 hint=5000 elapsed=7000"},
    };

    for (const auto& [hint, rate, paused_till, told] : cases) {
        const ULONGLONG begin = clock.now();
        play = [&](SERVICE_STATUS_PROCESS& status) {
            const auto now = static_cast<long>(clock.now() - begin);
            status.dwCurrentState = now < paused_till ? 7 : 3;
            status.dwCheckPoint = static_cast<DWORD>(100 + (rate * (now / 1000)));
            status.dwWaitHint = hint;
            status.dwProcessId = 4242;
        };
        EXPECT_EQ(call(STOP), std::wstring{L"Windows Search transition timed out: expected=1 "} + told);
    }
    EXPECT_THAT(clock.sleeps(), testing::Each(250U));
}

TEST_F(SearchActions, decide_in_one_word_and_take_no_other)
{
    session.set_property(L"RollbackDisabled", L"0");
    EXPECT_EQ(call(DECIDE), NEEDS_ROLLBACK) << "whatever it is set to";
    session.set_property(L"RollbackDisabled", L"");
    session.fail(installer_call::get_property);
    EXPECT_EQ(call(DECIDE), NEEDS_ROLLBACK);
    EXPECT_EQ(done, "");
    expect_decisions(std::nullopt);
    for (const unsigned nth : {3U, 2U, 1U}) {
        session.fail(installer_call::set_property, ERROR_FUNCTION_FAILED, nth);
        EXPECT_EQ(call(DECIDE), L"Cannot record Search state");
    }
    EXPECT_EQ(call(DECIDE), WAS_RUNNING);
    expect_decisions(L"running");
    states = {SERVICE_STOPPED};
    EXPECT_EQ(call(DECIDE), WAS_NOT);
    expect_decisions(L"unchanged");

    for (const char* action : {STOP, START}) {
        EXPECT_EQ(call(action, L"unchanged"), L"");
        for (const wchar_t* word : {L"", L"Running", L"running ", L" unchanged"}) {
            EXPECT_EQ(call(action, word), L"Invalid Search state");
        }
        EXPECT_EQ(call(action, std::wstring(32, L'x')), UNREADABLE);
        session.fail(installer_call::get_property);
        EXPECT_EQ(call(action), UNREADABLE);
        EXPECT_EQ(done, "");
    }
}

TEST(SearchStartType, is_one_of_three_and_all_that_changes)
{
    if (!machine_is_disposable()) {
        GTEST_SKIP() << "installs a service: set DISPOSABLE_MACHINE where that may be";
    }
    using custom_actions::read_search_start_type;
    using custom_actions::set_search_start_type;
    const windows_search search;
    const auto configuration = [] {
        custom_actions::registry_key_handle key;
        RegOpenKeyExW(
            HKEY_LOCAL_MACHINE, LR"(SYSTEM\CurrentControlSet\Services\WSearch)", 0, KEY_READ, key.put());
        RegDeleteValueW(key.get(), L"Start");
        return dump_registry(key.get());
    };
    const auto before = configuration();
    for (const DWORD type : {2U, 4U, 3U}) {
        set_search_start_type(type);
        EXPECT_EQ(read_search_start_type(), type);
    }
    EXPECT_EQ(configuration(), before);

    for (const DWORD type : {0U, 1U, 5U}) {
        EXPECT_EQ(thrown_by([&] { set_search_start_type(type); }), "Invalid Windows Search startup type");
    }
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_DEMAND_START});
}

} // namespace
} // namespace test_support
