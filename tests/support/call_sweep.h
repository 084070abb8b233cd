#pragma once

#include <windows.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// Counts the calls that a module makes to Windows through its import table, on all threads, and lets the n-th
// of them fail or end the process. How each function fails, and what is left alone, is told in
// call_sweep.cpp. A function of the module that is running may have read its imports already, so a sweep
// comes and goes while none is. One can live at a time.
class call_sweep {
public:
    enum class fault {
        passing,     // the n-th call alone fails
        staying,     // and every later one of the same function
        ends_process // with KILLED, before the n-th call
    };

    static constexpr UINT KILLED = 77;

    struct counted_call {
        std::string function;
        std::size_t place; // the same for calls from there by the same way; 0 where a fault is planned
    };

    // Counts the functions whose names begin with one of `only`, or all where there is none. Imports that
    // others have patched before keep their patches, and what fails does not get there.
    explicit call_sweep(HMODULE module, const std::vector<std::string_view>& only = {});
    ~call_sweep();

    call_sweep(const call_sweep&) = delete;
    call_sweep& operator=(const call_sweep&) = delete;

    // Counts anew, from 1; no call is the 0th.
    void plan(std::size_t nth, fault what);

    // In the order in which they came.
    [[nodiscard]] const std::vector<counted_call>& calls() const noexcept { return calls_; }

    // How many of them have failed.
    [[nodiscard]] std::size_t failed() const noexcept { return failed_; }

private:
    struct function;

    template <std::size_t Index, class... Words>
    static ULONG_PTR WINAPI stub(Words... words);

    bool fails(const std::string& called, ULONG_PTR first_argument);
    [[nodiscard]] std::size_t place_of_call() const;

    inline static call_sweep* active_ = nullptr;

    HMODULE module_;
    std::vector<function> functions_;
    std::mutex counting_;
    std::vector<counted_call> calls_;
    std::size_t failed_ = 0;
    std::size_t nth_ = 0;
    fault planned_ = fault::passing;
};

// Takes the calls by their numbers, from 1 on, for as many seconds as SWEEP of the environment says ("full"
// is all of them), or else for the default: first the first calls of each place in the code, then the others,
// both spread evenly, wherever the time is over. Ends at the first failure. Allows the test that time, and
// returns what to print of it.
std::string sweep_calls(
    const std::vector<call_sweep::counted_call>& calls,
    double default_seconds,
    const std::function<void(std::size_t)>& take);

} // namespace test_support
