#include "benchmarks/harness.h"

#include <io.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <system_error>

namespace benchmarks {
namespace {

double median(std::vector<double> times)
{
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    return *middle;
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

void report::against_floor(const std::string& what, double ours, double floor, double most)
{
    const double ratio = ours / floor;
    rows_.push_back({what, "ms", ours, floor, ratio, "ratio at most " + shown(most), ratio / most});
}

void report::against_peer(const std::string& what, double ours, double peer, double least)
{
    const double ratio = peer / ours;
    rows_.push_back({what, "ms", ours, peer, ratio, "ratio at least " + shown(least), least / ratio});
}

void report::beside_peer(const std::string& what, double ours, double peer)
{
    rows_.push_back({what, "ms", ours, peer, peer / ours, "none", 0});
}

void report::above_empty(
    const std::string& what, const std::string& unit, double ours, double empty, double most)
{
    rows_.push_back(
        {what, unit, ours, empty, ours / empty, "at most +" + shown(most), (ours - empty) / most});
}

void report::beside_empty(
    const std::string& what, const std::string& unit, double ours, double empty, double most)
{
    rows_.push_back({what, unit, ours, empty, ours / empty, "at most " + shown(most), ours / most});
}

void report::print() const
{
    std::size_t width = 0;
    for (const row& line : rows_) {
        width = std::max(width, line.what.size());
    }
    const auto column = static_cast<int>(width);
    std::printf(
        "%-*s  %-4s  %8s  %8s  %6s  %-19s  %6s  %s\n",
        column,
        "what",
        "unit",
        "ours",
        "against",
        "ratio",
        "aim",
        "of aim",
        "met?");
    for (const row& line : rows_) {
        const bool has_aim = line.aim != "none";
        const char* met = line.of_aim <= 1 ? "yes" : "NO";
        std::printf(
            "%-*s  %-4s  %8.2f  %8.2f  %6.2f  %-19s  %6s  %s\n",
            column,
            line.what.c_str(),
            line.unit.c_str(),
            line.ours,
            line.against,
            line.ratio,
            line.aim.c_str(),
            has_aim ? shown(line.of_aim).c_str() : "-",
            has_aim ? met : "-");
    }
    std::printf("\nMedians of %d rounds, in which the sides took turns.\n", ROUNDS);
    for (const std::string& text : notes_) {
        std::printf("%s\n", text.c_str());
    }
}

std::string shown(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", number);
    return text;
}

redirected_output::redirected_output(const std::filesystem::path& path) : before_{_dup(_fileno(stdout))}
{
    std::fflush(stdout);
    if (before_ < 0 || _wfreopen(path.c_str(), L"w", stdout) == nullptr) {
        throw std::system_error{errno, std::generic_category(), "cannot redirect standard output"};
    }
    // NUL counts as a terminal, which would be written to character by character.
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
}

redirected_output::~redirected_output()
{
    std::fflush(stdout);
    _dup2(before_, _fileno(stdout));
    _close(before_);
}

} // namespace benchmarks
