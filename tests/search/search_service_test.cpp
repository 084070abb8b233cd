#include "custom_actions/search/search_service.h"
#include "tests/support/faults.h"
#include "tests/support/installation.h"
#include "tests/support/played_clock.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/service_handle_check.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::intercepted_import;
using test_support::played_clock;
using test_support::search_behaviour;
using test_support::service_handle_check;
using test_support::thrown_by;
using test_support::windows_search;
using testing::Each;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char* NEITHER = "Windows Search must be running or stopped before installation";

HMODULE module_under_test()
{
    return GetModuleHandleW(nullptr);
}

// The call as it is, with a look at the service handles that it leaves.
std::function<void()> checked(std::function<void()> call)
{
    return [call = std::move(call)] {
        const service_handle_check handles{module_under_test()};
        call();
    };
}

const auto is_running = checked([] { search_is_running(); });
const auto read_type = checked([] { read_search_start_type(); });
const auto disable = checked([] { set_search_start_type(SERVICE_DISABLED); });
const auto stop = checked(stop_search_service);
const auto start = checked(start_search_service);

using intercepted_status = intercepted_import<"QueryServiceStatusEx", decltype(QueryServiceStatusEx)>;

// Puts a status where QueryServiceStatusEx is asked for one.
std::optional<BOOL> tell(BYTE* buffer, DWORD state, DWORD check_point, DWORD hint)
{
    auto* const status = reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
    *status = {};
    status->dwCurrentState = state;
    status->dwCheckPoint = check_point;
    status->dwWaitHint = hint;
    status->dwProcessId = 4242;
    return TRUE;
}

struct moment {
    DWORD state;
    DWORD check_point;
};

struct played_wait {
    std::string thrown;
    std::vector<DWORD> sleeps;
    unsigned queries = 0;
};

// Waits in played time until a service has stopped whose state at each time is what `at` says.
played_wait wait_for(const std::function<moment(ULONGLONG)>& at, DWORD hint)
{
    played_wait wait;
    const played_clock clock{module_under_test()};
    const intercepted_status played{
        module_under_test(), [&](SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) {
            ++wait.queries;
            const auto [state, check_point] = at(clock.now());
            return tell(buffer, state, check_point, hint);
        }};
    wait.thrown = thrown_by([] { wait_for_search_state(nullptr, SERVICE_STOPPED); });
    wait.sleeps = clock.sleeps();
    return wait;
}

TEST(SearchWait, gives_up_after_a_minute_or_without_progress)
{
    struct {
        DWORD hint;
        std::function<moment(ULONGLONG)> at;
        const char* told; // behind "expected=1 "
    } const cases[]{
        {0, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=0 elapsed=30000"},
        {500, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=500 elapsed=30000"},
        {999, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=999 elapsed=30000"},
        {1000, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=1000 elapsed=1000"},
        {5000, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=5000 elapsed=5000"},
        {30'000, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=30000 elapsed=30000"},
        {30'001, [](auto) { return moment{3, 7}; }, "state=3 pid=4242 checkpoint=7 hint=30001 elapsed=30000"},
        {120'000,
         [](auto) { return moment{3, 7}; },
         "state=3 pid=4242 checkpoint=7 hint=120000 elapsed=30000"},
        // A check point that rises once, falls, or rises for ever; another state; both limits at once.
        {5000,
         [](auto now) { return moment{3, now < 3000 ? 1UL : 2UL}; },
         "state=3 pid=4242 checkpoint=2 hint=5000 elapsed=8000"},
        {5000,
         [](auto now) { return moment{3, now < 3000 ? 9UL : 8UL}; },
         "state=3 pid=4242 checkpoint=8 hint=5000 elapsed=5000"},
        {1000,
         [](auto now) { return moment{3, static_cast<DWORD>(now / 500)}; },
         "state=3 pid=4242 checkpoint=120 hint=1000 elapsed=60000"},
        {5000,
         [](auto now) { return moment{now < 2000 ? 4UL : 3UL, 0}; },
         "state=3 pid=4242 checkpoint=0 hint=5000 elapsed=7000"},
        {30'000,
         [](auto now) { return moment{now < 29'000 ? 7UL : 4UL, 0}; },
         "state=4 pid=4242 checkpoint=0 hint=30000 elapsed=59000"},
        {30'000,
         [](auto now) { return moment{now < 30'000 ? 7UL : 4UL, 0}; },
         "state=4 pid=4242 checkpoint=0 hint=30000 elapsed=60000"},
    };

    for (const auto& [hint, at, told] : cases) {
        const played_wait wait = wait_for(at, hint);
        EXPECT_EQ(wait.thrown, std::string{"Windows Search transition timed out: expected=1 "} + told);
        EXPECT_THAT(wait.sleeps, Each(250U));
        EXPECT_EQ(wait.queries, wait.sleeps.size() + 2);
    }
}

TEST(SearchWait, ends_at_the_first_look_that_sees_the_state)
{
    for (const auto& [reached, sleeps] : {std::pair{0U, 0U}, {1, 1}, {250, 1}, {1300, 6}, {60'000, 240}}) {
        const played_wait wait = wait_for(
            [&](auto now) { return moment{now < reached ? 3UL : 1UL, static_cast<DWORD>(now)}; }, 1000);
        EXPECT_EQ(wait.thrown, "");
        EXPECT_THAT(wait.sleeps, SizeIs(sleeps)) << reached;
        EXPECT_EQ(wait.queries, sleeps + 2);
    }
}

TEST(SearchService, is_opened_with_no_more_access_than_needed)
{
    struct {
        std::function<void()> call;
        DWORD access;
        const char* where_absent;
    } const cases[]{
        {checked([] { EXPECT_FALSE(search_is_running()); }), 4, ""},
        {checked([] { EXPECT_EQ(read_search_start_type(), std::nullopt); }), 1, ""},
        {disable, 2, "Cannot change Windows Search startup type (6)"},
        {stop, 36, "Windows Search disappeared before stop"},
        {start, 20, "Windows Search disappeared before restore"},
    };

    open_search_service(SERVICE_QUERY_STATUS); // the first call may leave a connection to the service manager
    for (const auto& [call, access, where_absent] : cases) {
        DWORD code = ERROR_SERVICE_DOES_NOT_EXIST;
        const intercepted_import<"OpenServiceW", decltype(OpenServiceW)> open{
            module_under_test(), [&](SC_HANDLE, LPCWSTR name, DWORD asked) -> std::optional<SC_HANDLE> {
                EXPECT_EQ(std::wstring{name}, L"WSearch");
                EXPECT_EQ(asked, access);
                SetLastError(code);
                return nullptr;
            }};
        EXPECT_EQ(thrown_by(call), where_absent);
        code = ERROR_ACCESS_DENIED;
        EXPECT_EQ(thrown_by(call), "Cannot open Windows Search (5)");
        EXPECT_EQ(
            THROWN_WITH(call, OpenSCManagerW, nullptr, {RPC_S_SERVER_UNAVAILABLE}),
            "Cannot open service manager (1722)");
    }
}

class InstalledSearch : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test_support::machine_is_disposable()) {
            GTEST_SKIP() << "installs a service: set DISPOSABLE_MACHINE where that may be";
        }
    }
};

TEST_F(InstalledSearch, is_stopped_and_started_once)
{
    windows_search search{{.start_time = 300, .stop_time = 300, .wait_hint = 1000, .check_point_step = 100}};
    search.start();
    EXPECT_TRUE(search_is_running());
    EXPECT_EQ(thrown_by(start), "") << "it runs already";
    EXPECT_EQ(search.starts(), 0U);

    EXPECT_EQ(thrown_by(stop), "");
    EXPECT_EQ(search.state(), DWORD{SERVICE_STOPPED});
    EXPECT_FALSE(search_is_running());
    EXPECT_EQ(thrown_by(stop), "");
    EXPECT_EQ(search.stops(), 1U);

    EXPECT_EQ(thrown_by(start), "");
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(search.starts(), 1U);
}

TEST_F(InstalledSearch, is_not_asked_again_while_it_stops)
{
    windows_search search{{.stop_time = 400}};
    for (const auto& [call, state, starts] :
         {std::tuple{stop, SERVICE_STOPPED, 0U}, {start, SERVICE_RUNNING, 1U}}) {
        search.start();
        search.ask_to_stop();
        EXPECT_EQ(thrown_by(is_running), NEITHER);
        EXPECT_EQ(thrown_by(call), "");
        EXPECT_EQ(search.state(), DWORD(state));
        EXPECT_EQ(search.stops(), 1U);
        EXPECT_EQ(search.starts(), starts);
    }
}

TEST_F(InstalledSearch, is_looked_at_anew_after_a_pending_stop)
{
    const windows_search search;
    for (const auto& [last, thrown, starts] :
         {std::tuple{DWORD{0}, "Cannot query Windows Search (5)", 0U},
          {SERVICE_RUNNING, "", 0},
          {SERVICE_STOPPED, "", 1}}) {
        // The state, the two looks of the wait, the state again; then the service itself is asked.
        std::vector<DWORD> states{last, SERVICE_STOPPED, SERVICE_STOP_PENDING, SERVICE_STOP_PENDING};
        const intercepted_status played{
            module_under_test(),
            [&](SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) -> std::optional<BOOL> {
                if (states.empty()) {
                    return std::nullopt;
                }
                const DWORD state = states.back();
                states.pop_back();
                SetLastError(ERROR_ACCESS_DENIED);
                return state == 0 ? FALSE : tell(buffer, state, 0, 0);
            }};
        EXPECT_EQ(thrown_by(start), thrown);
        EXPECT_EQ(states.size(), 0U);
        EXPECT_EQ(search.starts(), starts);
    }
}

TEST_F(InstalledSearch, that_does_not_go_along_is_an_error)
{
    struct {
        search_behaviour behaviour;
        const char* running;
        std::function<void()> call;
        const char* thrown; // how it begins
    } const cases[]{
        {{.never_stops = true, .wait_hint = 2500},
         "",
         stop,
         "Windows Search transition timed out: expected=1 state=3 pid="},
        {{.started_state = SERVICE_START_PENDING}, NEITHER, stop, "Cannot stop Windows Search ("},
        {{.started_state = SERVICE_START_PENDING, .wait_hint = 999},
         NEITHER,
         start,
         "Windows Search transition timed out: expected=4 state=2 pid="},
        {{.started_state = SERVICE_PAUSED}, NEITHER, stop, ""},
        {{.started_state = SERVICE_PAUSED},
         NEITHER,
         start, // it is there already, which is no failure
         "Windows Search transition timed out: expected=4 state=7 pid="},
    };

    for (const auto& [behaviour, running, call, thrown] : cases) {
        windows_search search{behaviour};
        search.start();
        EXPECT_EQ(thrown_by(is_running), running);
        const played_clock clock{module_under_test()};
        EXPECT_THAT(thrown_by(call), StartsWith(thrown));
        EXPECT_THAT(clock.sleeps(), Each(250U));
    }
}

TEST_F(InstalledSearch, that_does_not_start_is_an_error)
{
    {
        const windows_search search{{.started_state = SERVICE_STOPPED}};
        const played_clock clock{module_under_test()};
        EXPECT_THAT(
            thrown_by(start), StartsWith("Windows Search transition timed out: expected=4 state=1 pid=0 "));
        EXPECT_GE(clock.now(), 30'000U);
    }
    const windows_search search;
    EXPECT_EQ(thrown_by(disable), "");
    EXPECT_EQ(thrown_by(start), "Cannot restart Windows Search (1058)");
    EXPECT_EQ(search.starts(), 0U);
}

TEST_F(InstalledSearch, may_have_been_started_by_somebody_else)
{
    windows_search search;
    search.start();
    bool first = true;
    const intercepted_status played{
        module_under_test(), [&](SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) {
            return std::exchange(first, false) ? tell(buffer, SERVICE_STOPPED, 0, 0) : std::nullopt;
        }};
    EXPECT_EQ(thrown_by(start), "");
    EXPECT_EQ(search.starts(), 0U);
}

TEST_F(InstalledSearch, tells_what_cannot_be_read_or_done)
{
    const char* const cannot_query = "Cannot query Windows Search (5)";
    for (const unsigned nth : {1U, 2U, 3U}) {
        windows_search search;
        search.start();
        EXPECT_EQ(
            THROWN_WITH(stop, QueryServiceStatusEx, FALSE, {ERROR_ACCESS_DENIED, nth, 0}), cannot_query);
        EXPECT_EQ(search.stops(), nth == 1 ? 0U : 1U);
    }
    windows_search search;
    search.start();
    EXPECT_EQ(THROWN_WITH(is_running, QueryServiceStatusEx, FALSE, {ERROR_ACCESS_DENIED}), cannot_query);
    EXPECT_EQ(THROWN_WITH(start, QueryServiceStatusEx, FALSE, {ERROR_ACCESS_DENIED}), cannot_query);
    EXPECT_EQ(
        THROWN_WITH(stop, ControlService, FALSE, {ERROR_ACCESS_DENIED}), "Cannot stop Windows Search (5)");
    EXPECT_EQ(search.state(), DWORD{SERVICE_RUNNING});
}

TEST_F(InstalledSearch, keeps_everything_but_its_start_type)
{
    const windows_search search;
    const auto configuration = [] {
        registry_key_handle key;
        RegOpenKeyExW(
            HKEY_LOCAL_MACHINE, LR"(SYSTEM\CurrentControlSet\Services\WSearch)", 0, KEY_READ, key.put());
        RegDeleteValueW(key.get(), L"Start");
        return test_support::dump_registry(key.get());
    };
    const auto before = configuration();
    for (const DWORD type : {2U, 4U, 3U}) {
        EXPECT_EQ(thrown_by(checked([&] { set_search_start_type(type); })), "");
        EXPECT_EQ(read_search_start_type(), type);
    }
    EXPECT_EQ(configuration(), before);

    for (const DWORD type : {0U, 1U, 5U, 0xFFFFFFFFU}) {
        EXPECT_EQ(
            thrown_by(checked([&] { set_search_start_type(type); })), "Invalid Windows Search startup type");
    }
    EXPECT_EQ(
        THROWN_WITH(disable, ChangeServiceConfigW, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot change Windows Search startup type (5)");
    EXPECT_EQ(read_search_start_type(), DWORD{SERVICE_DEMAND_START});
}

TEST_F(InstalledSearch, has_one_of_three_start_types)
{
    const windows_search search;
    EXPECT_EQ(
        THROWN_WITH(read_type, QueryServiceConfigW, FALSE, {ERROR_ACCESS_DENIED}),
        "Cannot size Windows Search configuration (5)");
    EXPECT_EQ(
        THROWN_WITH(read_type, QueryServiceConfigW, FALSE, {ERROR_INSUFFICIENT_BUFFER}),
        "Cannot size Windows Search configuration (122)")
        << "a size of nothing";
    EXPECT_EQ(
        THROWN_WITH(read_type, QueryServiceConfigW, FALSE, {ERROR_ACCESS_DENIED, 2}),
        "Cannot read Windows Search configuration (5)");
    const intercepted_import<"QueryServiceConfigW", decltype(QueryServiceConfigW)> played{
        module_under_test(),
        [&](SC_HANDLE, LPQUERY_SERVICE_CONFIGW configuration, DWORD, LPDWORD) -> std::optional<BOOL> {
            if (configuration == nullptr) {
                return std::nullopt;
            }
            configuration->dwStartType = SERVICE_SYSTEM_START;
            return TRUE;
        }};
    EXPECT_EQ(thrown_by(read_type), "Unexpected Windows Search startup type");
}

} // namespace
} // namespace custom_actions
