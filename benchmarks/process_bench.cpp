// Finding the suite's programs against a bare snapshot, and closing many of them against the time that they
// take to exit.

#include "benchmarks/benchmarks.h"
#include "custom_actions/processes/process_closing.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "support/toy_suite.h"

#include <tlhelp32.h>

#include <algorithm>
#include <deque>
#include <stdexcept>

namespace benchmarks {
namespace {

using custom_actions::kernel_handle;
using custom_actions::process_list;
using test_support::toy_process;

process_list start(std::deque<toy_process>& programs, int count, const std::wstring& behaviour)
{
    process_list ids;
    for (int i = 0; i != count; ++i) {
        ids.push_back(programs.emplace_back(L"Quorbel.exe", behaviour).id());
    }
    return ids;
}

void bare_snapshot()
{
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
    }
    CloseHandle(snapshot);
}

void measure_inventory(report& results)
{
    std::deque<toy_process> programs;
    start(programs, 200, L"--window=none");
    const auto times = median_times(
        {[&] {
             return std::vector{milliseconds([&] {
                 if (find_processes_by_image(
                         custom_actions::our_process_images, custom_actions::listing::strict)
                         .size() != 200) {
                     throw std::runtime_error{"a program was not found"};
                 }
             })};
         },
         [] { return std::vector{milliseconds(bare_snapshot)}; }});
    results.against_floor("processes: inventory over 200", times[0][0], times[1][0], 1.10);
}

constexpr double FILE_TIME_UNITS_PER_MS = 10'000;

ULONGLONG file_time(const FILETIME& time)
{
    return (ULONGLONG{time.dwHighDateTime} << 32U) | time.dwLowDateTime;
}

// The exit of the last of these, in milliseconds since `start`.
double last_exit(const std::vector<kernel_handle>& programs, const FILETIME& start)
{
    ULONGLONG last = 0;
    for (const kernel_handle& program : programs) {
        FILETIME created{};
        FILETIME ended{};
        FILETIME kernel{};
        FILETIME user{};
        GetProcessTimes(program.get(), &created, &ended, &kernel, &user);
        last = std::max(last, file_time(ended));
    }
    return static_cast<double>(last - file_time(start)) / FILE_TIME_UNITS_PER_MS;
}

// Returns the time that closing takes and the time of the last exit, in milliseconds.
std::vector<double> close_at_once(int polite, int stubborn, DWORD timeout_ms)
{
    std::deque<toy_process> programs;
    process_list ids = start(programs, polite, L"");
    std::ranges::copy(start(programs, stubborn, L"--window=ignores"), std::back_inserter(ids));
    std::vector<kernel_handle> handles;
    for (const DWORD id : ids) {
        handles.emplace_back(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, id));
    }
    FILETIME start_time{};
    GetSystemTimePreciseAsFileTime(&start_time);
    const double took = milliseconds([&] { custom_actions::close_processes(ids, timeout_ms); });
    return {took, last_exit(handles, start_time)};
}

} // namespace

void measure_processes(report& results)
{
    measure_inventory(results);
    const auto closing = median_times({[] { return close_at_once(40, 0, 5000); }}).front();
    results.against_floor("processes: closing 40 that close at once", closing[0], closing[1], 1.05);
    // The limit for all, then up to 5 seconds for each of the three to be terminated.
    const auto mixed = median_times({[] { return close_at_once(20, 3, 1000); }}).front();
    results.against_floor("processes: closing 20 and 3 that do not listen", mixed[0], 1000 + (3 * 5000), 1.0);
}

} // namespace benchmarks
