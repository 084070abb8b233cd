#pragma once

#include "tests/support/faults.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace test_support {

// What a fake machine has.
struct fake_state {
    struct program {
        std::wstring name;
        std::wstring library;         // that it has loaded
        std::optional<DWORD> session; // its own if it is a real process
        bool hidden = false;          // nobody else than its user may ask for the session
    };

    std::map<DWORD, program> programs; // by process id
    std::vector<DWORD> running; // the ids that are listed, in this order; starting a program adds its own
    // The key path of each component that is installed for all users, by product and component.
    std::map<std::wstring, std::wstring> key_paths;
    bool restarts = false; // a terminated program is listed again
    // Of the service "WSearch": one for each query, the last one for all others; empty if not installed.
    std::vector<DWORD> search_states{SERVICE_RUNNING};
    DWORD search_start = SERVICE_AUTO_START;
    bool search_delayed = true;
    DWORD script_result = 0; // its exit code
};

// Fakes the machine around one module, so that an action can run a thousand times:
// - `programs` are listed, each with one thread of the same id, and inspected. Those that are opened are real
//   processes, but end only in `running`: when terminated or, if they have no library, when one of their
//   windows is asked to close;
// - scripts end at once and leave their log;
// - time passes only by sleeping, and by waiting for a program that does not end.
// Everything else is real. All that the module has to close, service handles and environments included, is a
// real handle, so that a leak is counted. Only one may exist at a time.
class fake_machine : public fake_state {
public:
    // Throws std::runtime_error if `module` does not import a function that is replaced here.
    explicit fake_machine(HMODULE module);

    // The number of installer records that the module has open.
    [[nodiscard]] unsigned open_records() const noexcept { return open_records_; }

private:
    [[nodiscard]] bool runs(DWORD process) const { return std::ranges::count(running, process) != 0; }

    void fake_snapshots();
    void fake_programs();
    void fake_scripts();
    void fake_service();

    template <class Answer>
    void answer(const char* function, Answer to_calls)
    {
        hooks_.emplace_back(module_, function, std::move(to_calls));
    }

    HMODULE module_;
    ULONGLONG now_ = 0xFFFFFF00;          // in milliseconds; soon more than 32 bits
    std::vector<DWORD> terminated_;       // since the last snapshot
    std::size_t listed_ = 0;              // how many of the current snapshot
    std::optional<std::wstring> library_; // the next module
    unsigned open_records_ = 0;
    std::list<import_hook> hooks_;
};

} // namespace test_support
