// The Search actions of the built library, with a fake service.

#include "support/loaded_library.h"
#include "tests/support/fake_clock.h"
#include "tests/support/test_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace test_support {
namespace {

constexpr const char* DECIDE = "capture_search_state";
constexpr const char* STOP = "stop_search";
constexpr const char* START = "restore_search";
constexpr const wchar_t* STOPPED = L"Windows Search stopped before file changes.";

class SearchActions : public testing::Test {
protected:
    // Returns the action's message: a log line if it succeeded, an error if it failed; "" if there was none.
    std::wstring call(const char* action, const std::wstring& data = L"running")
    {
        queries = 0;
        session.set_property(L"CustomActionData", data);
        const std::size_t before = session.messages().size();
        const UINT result = library.call(action, session.handle());
        const bool silent = session.messages().size() == before;
        EXPECT_EQ(result, silent || session.messages().back().type == INSTALLMESSAGE_INFO ? 0U : 1603U);
        return silent ? L"" : session.messages().back().text;
    }

    // The service's state at each query; the last one stays. Empty if it is not installed.
    std::vector<DWORD> states;
    std::size_t queries = 0;
    SERVICE_STATUS_PROCESS service{}; // the rest of its status
    DWORD progress = 0;               // added to its check point at each query
    DWORD access = 0;                 // requested when it was opened last

    loaded_library library;
    test_session session{library.module()};
    fake_clock clock{library.module()};
    intercepted_import<"OpenServiceW", decltype(OpenServiceW)> open{
        library.module(), [this](SC_HANDLE, LPCWSTR, DWORD requested) {
            access = requested;
            SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
            return std::optional{
                states.empty() ? nullptr : OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)};
        }};
    intercepted_import<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)> query{
        library.module(), [this](SC_HANDLE, SC_STATUS_TYPE, LPBYTE status, DWORD, LPDWORD) {
            service.dwCurrentState = states.at(std::min(queries++, states.size() - 1));
            service.dwCheckPoint += progress;
            EXPECT_TRUE(start.calls() == 0 || service.dwCurrentState != 3) << "started while stopping";
            *reinterpret_cast<SERVICE_STATUS_PROCESS*>(status) = service;
            return std::optional{TRUE};
        }};
    failing_import<"ControlService", decltype(ControlService)> stop{library.module(), TRUE, {0, 1, 0}};
    failing_import<"StartServiceW", decltype(StartServiceW)> start{
        library.module(), FALSE, {ERROR_SERVICE_ALREADY_RUNNING, 1, 0}};
};

TEST_F(SearchActions, control_the_service_only_if_it_does_not_change_by_itself)
{
    struct {
        const char* action;
        std::vector<DWORD> seen; // 1 is stopped, 2 starting, 3 stopping, 4 running, 7 paused
        DWORD access;
        unsigned requests; // to stop or to start
        const wchar_t* message;
    } const cases[]{
        {DECIDE, {}, 4, 0, L"Windows Search stopped or absent; leave unchanged."},
        {DECIDE, {3}, 4, 0, L"Windows Search must be running or stopped before installation"},
        {STOP, {7, 7, 3, 1}, 36, 1, STOPPED},
        {STOP, {3, 3, 3, 1}, 36, 0, STOPPED},
        {STOP, {1}, 36, 0, STOPPED},
        {STOP, {}, 36, 0, L"Windows Search disappeared before stop"},
        {START, {3, 3, 3, 1, 1, 2, 2, 4}, 20, 1, L"Windows Search restored to running."},
        {START, {}, 20, 0, L"Windows Search disappeared before restore"},
    };

    for (const auto& [action, seen, with_access, requests, message] : cases) {
        SCOPED_TRACE(action + testing::PrintToString(seen));
        states = seen;
        const unsigned before = stop.calls() + start.calls();
        EXPECT_EQ(call(action), message);
        EXPECT_EQ(access, with_access);
        EXPECT_EQ(stop.calls() + start.calls(), before + requests);
        EXPECT_GE(queries, seen.size()) << "it did not wait for the last state";
    }
}

TEST_F(SearchActions, give_up_after_a_minute_or_without_progress)
{
    const auto wait = [this](DWORD hint, DWORD progress_at_each_query) {
        states = {7, 7, 7, 3}; // a change of state after 250 ms, which is progress
        service.dwCheckPoint = 100;
        service.dwWaitHint = hint;
        progress = progress_at_each_query;
        return call(STOP);
    };
    const std::wstring timed_out = L"Windows Search transition timed out: expected=1 state=3 pid=0 ";
    EXPECT_EQ(wait(999, 0), timed_out + L"checkpoint=100 hint=999 elapsed=30250");
    EXPECT_EQ(wait(1000, 0), timed_out + L"checkpoint=100 hint=1000 elapsed=1250");
    EXPECT_EQ(wait(30'001, 0), timed_out + L"checkpoint=100 hint=30001 elapsed=30250");
    EXPECT_EQ(wait(5000, 1), timed_out + L"checkpoint=343 hint=5000 elapsed=60000");
    EXPECT_EQ(wait(5000, MAXDWORD), timed_out + L"checkpoint=76 hint=5000 elapsed=5250")
        << "a check point that goes down is no progress";
}

TEST_F(SearchActions, do_nothing_without_rollback_or_a_valid_decision)
{
    session.set_property(L"RollbackDisabled", L"0");
    EXPECT_EQ(call(DECIDE), L"Rollback must be enabled for Search lifetime handling");
    for (const char* action : {STOP, START}) {
        EXPECT_EQ(call(action, L"unchanged"), L"");
        EXPECT_EQ(call(action, L"Running"), L"Invalid Search state");
    }
}

} // namespace
} // namespace test_support
