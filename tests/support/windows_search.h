#pragma once

#include <windows.h>

namespace test_support {

// Installs a service "WSearch" (package/toy_suite/toy_service.cpp) with the real service manager, stopped,
// and removes it when the scope ends. The machine must be disposable and have no Windows Search.
class windows_search {
public:
    // Replaces one that an earlier test left. Throws std::runtime_error if it cannot be installed or the
    // machine has its own Windows Search.
    windows_search();
    ~windows_search();

    windows_search(const windows_search&) = delete;
    windows_search& operator=(const windows_search&) = delete;

    // Starts it and waits until it runs. Throws std::runtime_error.
    void start() const;

    [[nodiscard]] DWORD state() const;
};

} // namespace test_support
