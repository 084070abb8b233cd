#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

// Real programs and libraries with the suite's names. They are found by name on the whole machine, so tests
// that start them need a disposable one.
namespace test_support {

// Ends every Explorer and waits until none is listed. A test that restarts Explorer calls this at its end:
// Explorer inherits the test's output, and whoever reads that would wait for it.
void end_explorer();

// Ends every program of this name and waits until none is listed. Returns how many there were at first.
// Throws std::runtime_error if one does not end.
std::size_t end_programs(const std::wstring& name);

// Copies the toy library under this name to this process's own folder and returns the copy's path.
std::wstring toy_library(const std::wstring& name);

// Runs a copy of the toy program under this name until the scope ends.
class toy_process {
public:
    // Returns once the program is ready. `behaviour` is its command line, such as "--window=ignores". Throws
    // std::exception if it does not start.
    explicit toy_process(const std::wstring& name, const std::wstring& behaviour = L"");
    ~toy_process();

    toy_process(const toy_process&) = delete;
    toy_process& operator=(const toy_process&) = delete;

    [[nodiscard]] DWORD id() const noexcept { return id_; }

    // Waits up to `limit` for the exit code; nothing if the program is still running then.
    [[nodiscard]] std::optional<DWORD> exit_code(std::chrono::milliseconds limit = {}) const;

private:
    custom_actions::kernel_handle process_;
    DWORD id_ = 0;
};

} // namespace test_support
