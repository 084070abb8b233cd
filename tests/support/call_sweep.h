#pragma once

#include "tests/support/faults.h"

#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// Counts the calls that a module makes to Windows through its import table, on all threads, and makes the
// n-th fail or ends the thread there. call_sweep.cpp says how each function fails and which are left alone.
// Create and destroy it while no function of the module runs. Only one may exist at a time.
class call_sweep {
public:
    enum class fault {
        passing,    // only the n-th call fails
        staying,    // and every later call of the same function
        ends_thread // exits with KILLED before the n-th call: all that the module holds stays open
    };

    static constexpr UINT KILLED = 77;

    using call_observer = std::function<void(std::string_view function, const words& arguments)>;

    // Hooks that are set before stay; a failing call does not reach them.
    explicit call_sweep(HMODULE module);

    // Restarts the count, from 1. With `nth` 0 no call fails.
    void plan(std::size_t nth, fault what);

    // Calls `observer` before each call, on the same thread.
    void observe(call_observer observer) { observer_ = std::move(observer); }

    // The functions called since, in order.
    [[nodiscard]] const std::vector<std::string>& calls() const noexcept { return calls_; }

    // How many of these calls were made to fail.
    [[nodiscard]] std::size_t failed() const noexcept { return failed_; }

private:
    // Counts a call, if it is of a kind that can fail, and returns whether it is to fail.
    bool fails(const std::string& function, bool can_fail, const words& arguments);

    std::list<import_hook> hooks_;
    call_observer observer_;
    std::mutex counting_;
    std::vector<std::string> calls_;
    std::size_t failed_ = 0;
    std::size_t nth_ = 0;
    fault planned_ = fault::passing;
};

} // namespace test_support
