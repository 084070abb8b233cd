#include "custom_actions/search/transition.h"

namespace custom_actions {
namespace {

constexpr ULONGLONG TRANSITION_LIMIT_MS = 60'000;
constexpr DWORD SHORTEST_HINT_MS = 1000;
constexpr DWORD LONGEST_HINT_MS = 30'000;

DWORD stall_limit(DWORD wait_hint_ms) noexcept
{
    return wait_hint_ms >= SHORTEST_HINT_MS && wait_hint_ms <= LONGEST_HINT_MS ? wait_hint_ms
                                                                               : LONGEST_HINT_MS;
}

} // namespace

service_transition::verdict
service_transition::observe(const SERVICE_STATUS_PROCESS& status, ULONGLONG now) noexcept
{
    if (status.dwCurrentState == expected_) {
        return verdict::reached;
    }
    if (status.dwCurrentState != last_seen_.dwCurrentState || status.dwCheckPoint > last_seen_.dwCheckPoint) {
        last_progress_ = now;
    }
    last_seen_ = status;
    const bool too_long = elapsed(now) >= TRANSITION_LIMIT_MS;
    const bool stalled = now - last_progress_ >= stall_limit(status.dwWaitHint);
    return too_long || stalled ? verdict::give_up : verdict::wait;
}

} // namespace custom_actions
