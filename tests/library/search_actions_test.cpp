// capture_search_state, stop_search and restore_search in the built library, with a service of the tests'
// own.

#include "tests/support/failing_import.h"
#include "tests/support/installation.h"
#include "tests/support/loaded_library.h"
#include "tests/support/played_clock.h"
#include "tests/support/scripted_session.h"
#include "tests/support/service_handle_check.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
constexpr const wchar_t* INVALID = L"Invalid Search state";

class SearchActions : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "installs and stops a service: set DISPOSABLE_MACHINE where that may be";
        }
        search.emplace();
    }

    // The action's only message: a log line of a success, an error of a failure; "" where there is none.
    std::wstring call(const char* action, UINT expected = 0)
    {
        const std::size_t before = session.messages().size();
        {
            const service_handle_check handles{library.module()};
            EXPECT_EQ(library.call(action, session.handle()), expected) << action;
        }
        std::wstring told;
        for (std::size_t i = before; i != session.messages().size(); ++i) {
            EXPECT_EQ(session.messages()[i].type, expected == 0 ? 0x04000000U : 0x01000000U);
            told += session.messages()[i].text;
        }
        return told;
    }

    // The same for an action with this CustomActionData.
    std::wstring call_with(const std::wstring& data, const char* action, UINT expected = 0)
    {
        session.set_property(L"CustomActionData", data);
        return call(action, expected);
    }

    std::vector<std::optional<std::wstring>> decisions()
    {
        return {
            session.property(L"stop_search"),
            session.property(L"rollback_search"),
            session.property(L"restore_search")};
    }

    loaded_library library;
    scripted_session session{library.module()};
    std::optional<windows_search> search;
};

TEST_F(SearchActions, stop_what_was_running_and_start_it_again)
{
    search->start();
    EXPECT_EQ(call(DECIDE), WAS_RUNNING);
    EXPECT_EQ(decisions(), decltype(decisions())(3, L"running"));
    EXPECT_EQ(call_with(*session.property(L"stop_search"), STOP), STOPPED);
    EXPECT_EQ(search->state(), DWORD{SERVICE_STOPPED});
    for (const wchar_t* action : {L"restore_search", L"rollback_search"}) {
        EXPECT_EQ(call_with(*session.property(action), START), RESTORED);
        EXPECT_EQ(search->state(), DWORD{SERVICE_RUNNING});
    }
    EXPECT_EQ(search->stops(), 1U);
    EXPECT_EQ(search->starts(), 1U);
}

TEST_F(SearchActions, leave_alone_what_was_stopped_or_is_not_there)
{
    const auto all_unchanged = [&] {
        EXPECT_EQ(call(DECIDE), WAS_NOT);
        EXPECT_EQ(decisions(), decltype(decisions())(3, L"unchanged"));
        EXPECT_EQ(call_with(L"unchanged", STOP), L"");
        EXPECT_EQ(call_with(L"unchanged", START), L"");
    };
    all_unchanged();
    EXPECT_EQ(search->starts(), 0U);
    search->start();
    EXPECT_EQ(call_with(L"unchanged", STOP), L"");
    EXPECT_EQ(search->state(), DWORD{SERVICE_RUNNING});

    // It vanishes after the decision.
    search.reset();
    EXPECT_EQ(call_with(L"running", STOP, 1603), L"Windows Search disappeared before stop");
    EXPECT_EQ(call_with(L"running", START, 1603), L"Windows Search disappeared before restore");
    all_unchanged();
}

TEST_F(SearchActions, take_no_other_word_for_a_decision)
{
    search->start();

    struct {
        std::wstring data;
        const wchar_t* message;
    } const cases[]{
        {L"", INVALID},
        {L"Running", INVALID},
        {L"RUNNING", INVALID},
        {L"Unchanged", INVALID},
        {L"running ", INVALID},
        {L" unchanged", INVALID},
        {std::wstring(31, L'x'), INVALID},
        {std::wstring(32, L'x'), UNREADABLE},
        {L"running" + std::wstring(40, L' '), UNREADABLE},
    };

    for (const char* action : {STOP, START}) {
        for (const auto& [data, message] : cases) {
            EXPECT_EQ(call_with(data, action, 1603), message);
        }
        session.fail(installer_call::get_property);
        EXPECT_EQ(call_with(L"running", action, 1603), UNREADABLE);
    }
    EXPECT_EQ(search->stops(), 0U);
}

TEST_F(SearchActions, decide_nothing_without_a_rollback)
{
    for (const std::wstring& value :
         {std::wstring{L"1"}, std::wstring{L"0"}, std::wstring(15, L'1'), std::wstring(16, L'1')}) {
        session.set_property(L"RollbackDisabled", value);
        EXPECT_EQ(call(DECIDE, 1603), NEEDS_ROLLBACK) << "even where Search is stopped";
    }
    session.set_property(L"RollbackDisabled", L"");
    session.fail(installer_call::get_property);
    EXPECT_EQ(call(DECIDE, 1603), NEEDS_ROLLBACK);
    EXPECT_EQ(decisions(), decltype(decisions())(3));

    for (const unsigned nth : {3U, 2U, 1U}) {
        session.fail(installer_call::set_property, ERROR_FUNCTION_FAILED, nth);
        EXPECT_EQ(call(DECIDE, 1603), L"Cannot record Search state");
    }
    EXPECT_EQ(call(DECIDE), WAS_NOT);
}

TEST_F(SearchActions, decide_nothing_for_a_service_on_its_way)
{
    for (const auto& behaviour :
         {search_behaviour{.started_state = SERVICE_PAUSED},
          search_behaviour{.started_state = SERVICE_START_PENDING},
          search_behaviour{.never_stops = true}}) {
        search.emplace(behaviour);
        search->start();
        if (behaviour.never_stops) {
            search->ask_to_stop();
        }
        EXPECT_EQ(call(DECIDE, 1603), NEITHER);
    }
    const failing_import<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)> fault{
        library.module(), FALSE, {ERROR_ACCESS_DENIED}};
    EXPECT_EQ(call(DECIDE, 1603), L"Cannot query Windows Search");
    EXPECT_EQ(decisions(), decltype(decisions())(3));
}

TEST_F(SearchActions, tell_in_full_what_they_waited_for_in_vain)
{
    search.emplace(search_behaviour{.never_stops = true, .wait_hint = 5000});
    search->start();
    const played_clock clock{library.module()};
    const std::wstring told = call_with(L"running", STOP, 1603);
    EXPECT_EQ(
        told,
        L"Windows Search transition timed out: expected=1 state=3 pid=" +
            std::to_wstring(search->process_id()) + L" checkpoint=1 hint=5000 elapsed=5000");
    EXPECT_EQ(clock.sleeps(), std::vector<DWORD>(20, 250));
    EXPECT_EQ(search->stops(), 1U);
}

} // namespace
} // namespace test_support
