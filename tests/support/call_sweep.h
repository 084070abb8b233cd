#pragma once

#include "tests/support/import_patch.h"

#include <windows.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// Counts every call that a module makes to Windows through its import table, on all threads, and lets the
// n-th of them fail or end the process. What each function does to fail is one table in call_sweep.cpp, which
// also names what is not counted. A function of the module that is running may have read its imports already,
// so a sweep comes and goes while none is.
class call_sweep {
public:
    enum class lasting {
        once,   // the n-th call alone
        staying // and every later one of the same function
    };

    struct counted_call {
        std::string_view function;
        std::size_t place; // the same for calls that come from the same place by the same way
        bool can_fail;
    };

    // Throws std::runtime_error with the names of the imports that the table does not have. Imports that
    // others have patched before keep their patches, and what fails does not get there.
    explicit call_sweep(HMODULE module);
    ~call_sweep();

    call_sweep(const call_sweep&) = delete;
    call_sweep& operator=(const call_sweep&) = delete;

    // Each of these counts anew, from 1.
    void let_pass();
    void fail_at(std::size_t nth, lasting how);

    // Before the n-th call of this function, however many others there are.
    void end_process_at(std::string_view function, std::size_t nth, UINT exit_code);

    // In the order in which they came.
    [[nodiscard]] const std::vector<counted_call>& calls() const noexcept { return calls_; }

    // How many of them have failed.
    [[nodiscard]] std::size_t failed() const noexcept { return failed_; }

private:
    struct stub;

    struct executable_memory {
        explicit executable_memory(std::size_t bytes);
        ~executable_memory();

        executable_memory(const executable_memory&) = delete;
        executable_memory& operator=(const executable_memory&) = delete;

        std::byte* start;
        std::size_t size;
    };

    // Returns the result with which the call fails, or null where it goes on.
    static const ULONG_PTR* on_call(const stub* called, ULONG_PTR first_argument) noexcept;

    const ULONG_PTR* count(const stub& called, ULONG_PTR first_argument, std::size_t place);
    void start_over() noexcept;
    void write_code();

    std::vector<stub> stubs_;
    std::unique_ptr<executable_memory> code_;
    std::vector<std::unique_ptr<untyped_import_patch>> patches_;
    ULONG_PTR module_start_;
    ULONG_PTR module_end_;

    std::mutex counting_;
    std::vector<counted_call> calls_;
    std::size_t failed_ = 0;
    std::size_t nth_ = 0; // 0 is none
    lasting how_ = lasting::once;
    std::string ends_process_at_; // empty where it does not end the process
    std::size_t calls_of_it_ = 0;
    UINT exit_code_ = 0;
    std::string_view failing_;
};

} // namespace test_support
