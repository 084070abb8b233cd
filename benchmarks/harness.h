#pragma once

#include "support/require.h"

#include <windows.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// Shared by the benchmarks: measuring times, and the table of results.
namespace benchmarks {

using test_support::require;

// The time that `work` takes, in milliseconds.
double milliseconds(const std::function<void()>& work);

// One round of one side of a comparison: prepares what it needs and returns the times that it measured, the
// same number in each round.
using round_of_times = std::function<std::vector<double>()>;

inline constexpr int ROUNDS = 15;

// Lets the sides take turns, so that other load on the machine affects all alike: a warm-up round of each,
// then ROUNDS of each, starting with another side every time. Returns the median of each time of each side.
std::vector<std::vector<double>> median_times(const std::vector<round_of_times>& sides);

// The table of results.
class report {
public:
    // Milliseconds against the minimum for the same work. Aim: ours / floor is at most `most`.
    void against_floor(const std::string& what, double ours, double floor, double most);

    // Milliseconds against another way to do the same. Aim: peer / ours is at least `least`.
    void against_peer(const std::string& what, double ours, double peer, double least);

    // As above without an aim: a figure that explains another.
    void beside_peer(const std::string& what, double ours, double peer);

    // Ours against the empty library. Aim: the difference is at most `most`.
    void
    above_empty(const std::string& what, const std::string& unit, double ours, double empty, double most);

    // As above. Aim: ours is at most `most`.
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
        double of_aim; // above 1: missed; 0 without an aim
    };

    std::vector<row> rows_;
    std::vector<std::string> notes_;
};

// The number with two decimals, as in the table.
std::string shown(double number);

// Redirects standard output to a file for its lifetime.
class redirected_output {
public:
    // Throws std::system_error.
    explicit redirected_output(const std::filesystem::path& path);
    ~redirected_output();

    redirected_output(const redirected_output&) = delete;
    redirected_output& operator=(const redirected_output&) = delete;

private:
    int before_;
};

} // namespace benchmarks
