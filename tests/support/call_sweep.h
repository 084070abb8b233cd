#pragma once

#include <windows.h>

#include <cstddef>
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

    // Counts the functions whose names begin with one of `only`, or all where there is none. Imports that
    // others have patched before keep their patches, and what fails does not get there.
    explicit call_sweep(HMODULE module, const std::vector<std::string_view>& only = {});
    ~call_sweep();

    call_sweep(const call_sweep&) = delete;
    call_sweep& operator=(const call_sweep&) = delete;

    // Counts anew, from 1; no call is the 0th.
    void plan(std::size_t nth, fault what);

    // Their functions, in the order in which they came.
    [[nodiscard]] const std::vector<std::string>& calls() const noexcept { return calls_; }

    // How many of them have failed.
    [[nodiscard]] std::size_t failed() const noexcept { return failed_; }

    // The keys that its failed calls to the registry were about, by their paths.
    [[nodiscard]] const std::vector<std::wstring>& failed_keys() const noexcept { return failed_keys_; }

private:
    struct function;

    template <std::size_t Index, class... Words>
    static ULONG_PTR WINAPI stub(Words... words);

    bool fails(const std::string& called, ULONG_PTR first_argument);

    inline static call_sweep* active_ = nullptr;

    std::vector<function> functions_;
    std::mutex counting_;
    std::vector<std::string> calls_;
    std::size_t failed_ = 0;
    std::vector<std::wstring> failed_keys_;
    std::size_t nth_ = 0;
    fault planned_ = fault::passing;
};

} // namespace test_support
