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
    DWORD started_state = SERVICE_RUNNING;
    bool never_stops = false;
    DWORD wait_hint = 0;
    DWORD check_point_step = 0;
    const wchar_t* watch = L"";
};

// The service, installed and stopped. Ends and removes it when the scope ends, in whatever state it is.
class windows_search {
public:
    // Takes the place of one that an earlier test has left. Throws std::system_error with the service
    // manager's code, and std::runtime_error where the machine's own Windows Search is there.
    explicit windows_search(const search_behaviour& behaviour = {});
    ~windows_search();

    windows_search(const windows_search&) = delete;
    windows_search& operator=(const windows_search&) = delete;

    // Starts it, waits until it is in its started state, and forgets that it was asked. Throws
    // std::runtime_error where it does not get there within 10 seconds.
    void start();

    // From here on, nothing counts as asked before.
    void forget();

    // Sends it one stop control and does not wait.
    void ask_to_stop();

    [[nodiscard]] DWORD state() const;
    [[nodiscard]] DWORD process_id() const;

    // How often it was asked since start() or forget() or, without these, since it was installed.
    [[nodiscard]] DWORD stops() const;
    [[nodiscard]] DWORD starts() const;

    // The first line of the watched file when it stopped or started last.
    [[nodiscard]] std::wstring line_at_stop() const;
    [[nodiscard]] std::wstring line_at_start() const;

private:
    DWORD started_state_;
};

} // namespace test_support
