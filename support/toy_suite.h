#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

// Real programs and libraries under the suite's names. They are found by name on the whole machine, so tests
// that start them need a disposable one.
namespace test_support {

// Ends every Explorer and waits until none is listed. A test that lets Explorer come back calls this at its
// end: what was started by a test holds the test's output open, and whoever reads that would wait for it.
void end_explorer();

// Ends every program of this name and waits until none is listed; how many there were at first.
std::size_t end_programs(const std::wstring& name);

// A copy of the toy library under this name, in a folder of this process's own; its path.
std::wstring toy_library(const std::wstring& name);

// A copy of the toy program under this name, or the installed one with this path, running and ready until its
// scope ends.
class toy_process {
public:
    // `behaviour` is the program's command line, as in "--window=ignores". Throws std::exception where it
    // does not come up.
    explicit toy_process(const std::wstring& name, const std::wstring& behaviour = L"");
    ~toy_process();

    toy_process(const toy_process&) = delete;
    toy_process& operator=(const toy_process&) = delete;

    [[nodiscard]] DWORD id() const noexcept { return id_; }

    // The exit code, once it has ended within `limit`; nothing where it is still running.
    [[nodiscard]] std::optional<DWORD> exit_code(std::chrono::milliseconds limit = {}) const;

private:
    custom_actions::kernel_handle process_;
    DWORD id_ = 0;
};

} // namespace test_support
