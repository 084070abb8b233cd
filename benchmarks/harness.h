#pragma once

#include "support/require.h"

#include <windows.h>

#include <functional>
#include <iosfwd>
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

// The table of results, in Markdown.
class report {
public:
    // Aim: ours is at most `most`.
    void at_most(const std::string& what, const std::string& unit, double ours, double against, double most);

    // Aim: ours is at most `most` more than the other.
    void
    at_most_above(const std::string& what, const std::string& unit, double ours, double against, double most);

    // Milliseconds against another way to do the same. Aim: peer / ours is at least `least`; 0 means none.
    void faster_than(const std::string& what, double ours, double peer, double least);

    // A line below the table.
    void note(const std::string& text) { notes_.push_back(text); }

    void print(std::ostream& to) const;

private:
    std::vector<std::vector<std::string>> rows_{{"what", "unit", "ours", "against", "ratio", "aim", "met?"}};
    std::vector<std::string> notes_;
};

// The number with two decimals, as in the table.
std::string shown(double number);

} // namespace benchmarks
