#pragma once

#include <windows.h>

// A service "WSearch" of the tests' own with the real service manager. Tests that install it need a machine
// that is disposable and has no Windows Search.
namespace test_support {

// The service (package/toy_suite/toy_service.cpp), installed and stopped. Ends and removes it when the scope
// ends, in whatever state it is.
class windows_search {
public:
    // Takes the place of one that an earlier test has left. Throws std::runtime_error where it cannot be
    // installed, or the machine's own Windows Search is there.
    windows_search();
    ~windows_search();

    windows_search(const windows_search&) = delete;
    windows_search& operator=(const windows_search&) = delete;

    // Starts it, waits until it runs, and forgets that it was asked. Throws std::runtime_error.
    void start() const;

    [[nodiscard]] DWORD state() const;

    // How often it was asked to start since start() or, without that, since it was installed.
    [[nodiscard]] DWORD starts() const;
};

} // namespace test_support
