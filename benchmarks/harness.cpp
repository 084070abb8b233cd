#include "benchmarks/harness.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <iterator>
#include <ostream>

namespace benchmarks {
namespace {

double median(std::vector<double> times)
{
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    return *middle;
}

const char* answer(bool met)
{
    return met ? "yes" : "NO";
}

} // namespace

double milliseconds(const std::function<void()>& work)
{
    LARGE_INTEGER frequency{};
    LARGE_INTEGER start{};
    LARGE_INTEGER end{};
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&start);
    work();
    QueryPerformanceCounter(&end);
    return 1000.0 * static_cast<double>(end.QuadPart - start.QuadPart) /
           static_cast<double>(frequency.QuadPart);
}

std::vector<std::vector<double>> median_times(const std::vector<round_of_times>& sides)
{
    std::vector<std::vector<std::vector<double>>> taken(sides.size()); // [side][time][round]
    for (std::size_t turn = 0; turn <= ROUNDS; ++turn) {
        for (std::size_t i = 0; i < sides.size(); ++i) {
            const std::size_t side = (turn + i) % sides.size();
            const std::vector<double> times = sides[side]();
            taken[side].resize(times.size());
            for (std::size_t time = 0; turn > 0 && time < times.size(); ++time) {
                taken[side][time].push_back(times[time]);
            }
        }
    }
    std::vector<std::vector<double>> medians(sides.size());
    for (std::size_t side = 0; side < sides.size(); ++side) {
        std::ranges::transform(taken[side], std::back_inserter(medians[side]), median);
    }
    return medians;
}

void report::at_most(
    const std::string& what, const std::string& unit, double ours, double against, double most)
{
    rows_.push_back(
        {what,
         unit,
         shown(ours),
         shown(against),
         shown(ours / against),
         "at most " + shown(most),
         answer(ours <= most)});
}

void report::at_most_above(
    const std::string& what, const std::string& unit, double ours, double against, double most)
{
    at_most(what, unit, ours, against, against + most);
    rows_.back()[5] = "at most +" + shown(most);
}

void report::faster_than(const std::string& what, double ours, double peer, double least)
{
    const double ratio = peer / ours;
    const bool has_aim = least > 0;
    rows_.push_back(
        {what,
         "ms",
         shown(ours),
         shown(peer),
         shown(ratio),
         has_aim ? "ratio at least " + shown(least) : "none",
         has_aim ? answer(ratio >= least) : "-"});
}

void report::print(std::ostream& to) const
{
    std::vector<std::size_t> widths(rows_[0].size());
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool is_number = i >= 2 && i <= 4;
            to << "| " << std::setw(static_cast<int>(widths[i])) << (is_number ? std::right : std::left)
               << row[i] << ' ';
        }
        to << "|\n" << (&row == rows_.data() ? "| --- | --- | ---: | ---: | ---: | --- | --- |\n" : "");
    }
    to << "\nMedians of " << ROUNDS << " rounds, in which the sides took turns.\n";
    for (const std::string& text : notes_) {
        to << text << '\n';
    }
}

std::string shown(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", number);
    return text;
}

} // namespace benchmarks
