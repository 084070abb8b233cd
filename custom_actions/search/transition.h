#pragma once

#include <windows.h>

namespace custom_actions {

// Decides how long to wait for a service to reach a state, from what is seen of it and when: a minute at
// most, and less if it makes no progress. Progress is another state or a higher check point. The service may
// go without it for as long as its wait hint says, if that is from 1 to 30 seconds, and for 30 seconds
// otherwise.
class service_transition {
public:
    enum class verdict { reached, wait, give_up };

    // `first` is the service's status at `now`; all times are in milliseconds.
    service_transition(DWORD expected, const SERVICE_STATUS_PROCESS& first, ULONGLONG now) noexcept
        : expected_{expected}, start_{now}, last_progress_{now}, last_seen_{first}
    {
    }

    verdict observe(const SERVICE_STATUS_PROCESS& status, ULONGLONG now) noexcept;

    // Since the beginning.
    [[nodiscard]] ULONGLONG elapsed(ULONGLONG now) const noexcept { return now - start_; }

private:
    DWORD expected_;
    ULONGLONG start_;
    ULONGLONG last_progress_;
    SERVICE_STATUS_PROCESS last_seen_;
};

} // namespace custom_actions
