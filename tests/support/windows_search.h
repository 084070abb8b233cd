#pragma once

#include <windows.h>
#include <winsvc.h>

#include <string>

// A service "WSearch" of the tests' own with the real service manager. Tests that install it need a machine
// that is disposable and has no Windows Search.
namespace test_support {

// What the service program is told; times in milliseconds. How it is meant:
// package/toy_suite/toy_service.cpp.
struct search_behaviour {
    DWORD start_time = 0;
    DWORD stop_time = 0;
    const wchar_t* watch = L"";
};

// The service, installed and stopped. Ends and removes it when the scope ends, in whatever state it is.
class windows_search {
public:
    // Takes the place of one that an earlier test has left. Throws std::runtime_error where it cannot be
    // installed, or the machine's own Windows Search is there.
    explicit windows_search(const search_behaviour& behaviour = {});
    ~windows_search();

    windows_search(const windows_search&) = delete;
    windows_search& operator=(const windows_search&) = delete;

    // Starts it, waits until it runs, and forgets that it was asked. Throws windows_error with the service
    // manager's code, and std::runtime_error where it does not run within 10 seconds.
    void start();

    // From here on, nothing counts as asked before.
    void forget();

    [[nodiscard]] DWORD state() const;

    // How often it was asked since start() or forget() or, without these, since it was installed.
    [[nodiscard]] DWORD stops() const { return asked(L"Stops"); }

    [[nodiscard]] DWORD starts() const { return asked(L"Starts"); }

    // The first line of the watched file when it stopped or started last.
    [[nodiscard]] std::wstring line_at_stop() const { return kept(L"AtStop"); }

    [[nodiscard]] std::wstring line_at_start() const { return kept(L"AtStart"); }

private:
    [[nodiscard]] static DWORD asked(const wchar_t* name);
    [[nodiscard]] static std::wstring kept(const wchar_t* name);
};

} // namespace test_support
