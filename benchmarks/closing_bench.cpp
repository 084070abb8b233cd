// Closing many of the suite's programs together, against closing one after another.

#include "benchmarks/benchmarks.h"
#include "custom_actions/processes/process_closing.h"
#include "support/toy_suite.h"

#include <deque>
#include <stdexcept>

namespace benchmarks {
namespace {

using custom_actions::process_list;
using test_support::toy_process;

constexpr int COUNT = 40;
constexpr DWORD LIMIT_MS = 5000;

round_of_times closing(void (*close)(const process_list& ids))
{
    return [close] {
        std::deque<toy_process> programs;
        process_list ids;
        for (int i = 0; i != COUNT; ++i) {
            ids.push_back(programs.emplace_back(L"Quorbel.exe").id());
        }
        const std::vector times{milliseconds([&] { close(ids); })};
        for (const toy_process& program : programs) {
            if (program.exit_code() != 0U) {
                throw std::runtime_error{"a program did not close when asked"};
            }
        }
        return times;
    };
}

void close_together(const process_list& ids)
{
    custom_actions::close_processes(ids, LIMIT_MS);
}

void close_one_by_one(const process_list& ids)
{
    for (const DWORD id : ids) {
        custom_actions::close_processes({id}, LIMIT_MS);
    }
}

} // namespace

void measure_closing(report& results)
{
    const auto times = median_times({closing(close_together), closing(close_one_by_one)});
    results.faster_than("closing 40 programs / one after another", times[0][0], times[1][0], 1);
}

} // namespace benchmarks
