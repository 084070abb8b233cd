// The actions of the built library with a service that is played.

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
    // The action's only message: a log line of a success, an error of a failure; "" where there is none.
    std::wstring call(const char* action, const std::wstring& data = L"running")
    {
        looks = 0;
        session.set_property(L"CustomActionData", data);
        const std::size_t before = session.messages().size();
        const UINT result = library.call(action, session.handle());
        const bool silent = session.messages().size() == before;
        EXPECT_EQ(result, silent || session.messages().back().type == INSTALLMESSAGE_INFO ? 0U : 1603U);
        return silent ? L"" : session.messages().back().text;
    }

    // What the service is seen to be, in turn; the last one stays. No state is one that is not installed.
    std::vector<DWORD> states;
    std::size_t looks = 0;
    SERVICE_STATUS_PROCESS service{}; // what else it is seen to be
    DWORD progress = 0;               // of its check point with each look
    DWORD access = 0;                 // with which it was opened

    loaded_library library;
    test_session session{library.module()};
    fake_clock clock{library.module()};
    intercepted_import<"OpenServiceW", decltype(OpenServiceW)> open{
        library.module(), [this](SC_HANDLE, LPCWSTR, DWORD asked) {
            access = asked;
            SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
            return std::optional{
                states.empty() ? nullptr : OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)};
        }};
    intercepted_import<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)> query{
        library.module(), [this](SC_HANDLE, SC_STATUS_TYPE, LPBYTE status, DWORD, LPDWORD) {
            service.dwCurrentState = states.at(std::min(looks++, states.size() - 1));
            service.dwCheckPoint += progress;
            EXPECT_TRUE(start.calls() == 0 || service.dwCurrentState != 3) << "asked too early";
            *reinterpret_cast<SERVICE_STATUS_PROCESS*>(status) = service;
            return std::optional{TRUE};
        }};
    failing_import<"ControlService", decltype(ControlService)> stop{library.module(), TRUE, {0, 1, 0}};
    // 1056: somebody else has been quicker.
    failing_import<"StartServiceW", decltype(StartServiceW)> start{library.module(), FALSE, {1056, 1, 0}};
};

TEST_F(SearchActions, ask_the_service_for_what_it_does_not_do_by_itself)
{
    struct {
        const char* action;
        std::vector<DWORD> seen; // 1 is stopped, 2 starting, 3 stopping, 4 running, 7 paused
        DWORD access;
        unsigned asked; // to stop or to start
        const wchar_t* told;
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

    for (const auto& [action, seen, with_access, asked, told] : cases) {
        SCOPED_TRACE(action + testing::PrintToString(seen));
        states = seen;
        const unsigned before = stop.calls() + start.calls();
        EXPECT_EQ(call(action), told);
        EXPECT_EQ(access, with_access);
        EXPECT_EQ(stop.calls() + start.calls(), before + asked);
        EXPECT_GE(looks, seen.size()) << "it was not looked at to the end";
    }
}

TEST_F(SearchActions, give_up_after_a_minute_or_without_progress)
{
    const auto wait = [this](DWORD hint, DWORD at_each_look) {
        states = {7, 7, 7, 3}; // a change after 250 ms, which is progress
        service.dwCheckPoint = 100;
        service.dwWaitHint = hint;
        progress = at_each_look;
        return call(STOP);
    };
    const std::wstring timed_out = L"Windows Search transition timed out: expected=1 state=3 pid=0 ";
    EXPECT_EQ(wait(999, 0), timed_out + L"checkpoint=100 hint=999 elapsed=30250");
    EXPECT_EQ(wait(1000, 0), timed_out + L"checkpoint=100 hint=1000 elapsed=1250");
    EXPECT_EQ(wait(30'001, 0), timed_out + L"checkpoint=100 hint=30001 elapsed=30250");
    EXPECT_EQ(wait(5000, 1), timed_out + L"checkpoint=343 hint=5000 elapsed=60000");
    EXPECT_EQ(wait(5000, MAXDWORD), timed_out + L"checkpoint=76 hint=5000 elapsed=5250")
        << "one less each time";
}

TEST_F(SearchActions, do_nothing_that_rollback_could_not_undo_or_nobody_decided)
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
