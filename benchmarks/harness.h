#pragma once

#include "support/require.h"

#include <windows.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// What the benchmarks share: how a time is taken, and the table that they fill.
namespace benchmarks {

using test_support::require;

// How long `work` takes, in milliseconds.
double milliseconds(const std::function<void()>& work);

// One round of one side of a comparison: prepares what it needs, and returns the times of what it measures,
// the same number of them in each round.
using round_of_times = std::function<std::vector<double>()>;

inline constexpr int ROUNDS = 15;

// Lets the sides take turns: a round of each that does not count, then ROUNDS of each, every time with
// another of them first, so that what else the machine does falls on all alike. Returns for each side the
// medians of its times.
std::vector<std::vector<double>> median_times(const std::vector<round_of_times>& sides);

// The rows of the table, printed when all benchmarks have run.
class report {
public:
    // Milliseconds beside the least that the same work costs; the ratio is ours / floor, which `most` bounds.
    void against_floor(const std::string& what, double ours, double floor, double most);

    // Milliseconds beside another way to the same end; the ratio is peer / ours, which `least` bounds.
    void against_peer(const std::string& what, double ours, double peer, double least);

    // As above where there is nothing to reach: a figure that explains another.
    void beside_peer(const std::string& what, double ours, double peer);

    // Ours beside what the same costs with an empty library; `most` bounds what ours has above that.
    void
    above_empty(const std::string& what, const std::string& unit, double ours, double empty, double most);

    // As above where `most` bounds all of ours.
    void
    beside_empty(const std::string& what, const std::string& unit, double ours, double empty, double most);

    // A line below the table.
    void note(const std::string& text) { notes_.push_back(text); }

    void print() const;

private:
    struct row {
        std::string what;
        std::string unit;
        double ours;
        double against;
        double ratio;
        std::string aim;
        double of_aim; // above 1 it is missed; 0 where there is none
    };

    std::vector<row> rows_;
    std::vector<std::string> notes_;
};

// A number with as many decimals as the table shows.
std::string shown(double number);

// Sends standard output to a file while it lives.
class redirected_output {
public:
    // Throws std::system_error where it cannot be sent there.
    explicit redirected_output(const std::filesystem::path& path);
    ~redirected_output();

    redirected_output(const redirected_output&) = delete;
    redirected_output& operator=(const redirected_output&) = delete;

private:
    int before_;
};

} // namespace benchmarks
