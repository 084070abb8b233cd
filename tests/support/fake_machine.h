#pragma once

#include "tests/support/failing_import.h"
#include "tests/support/fake_clock.h"

#include <windows.h>

#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <vector>

namespace test_support {

// Fakes the machine around one module, so that an action can run a thousand times:
// - `programs` are real processes that are listed, opened and inspected, but end only in `running`: when
//   terminated or, if they have no library, when one of their windows is asked to close;
// - a service "WSearch" starts and stops at once; scripts succeed at once and leave their log;
// - time passes only by sleeping.
// Everything else is real. All that the module has to close, service handles and environments included, is a
// real handle, so that a leak is counted. Only one may exist at a time.
class fake_machine {
public:
    // Throws std::runtime_error if `module` does not import a function that is replaced here.
    explicit fake_machine(HMODULE module);

    struct program {
        std::wstring_view name;
        std::wstring_view library; // that it has loaded
    };

    std::map<DWORD, program> programs; // by process id
    std::set<DWORD> running;           // the ids that are listed; starting a program adds its own
    DWORD search_state = SERVICE_RUNNING;

private:
    void fake_snapshots();
    void fake_programs();
    void fake_service();

    template <function_name Name, class Function, class Answer>
    void answer(Function* replaced, Answer result);

    HMODULE module_;
    DWORD last_listed_ = 0; // in the current snapshot
    DWORD inspected_ = 0;   // its library is the next module
    fake_clock clock_;
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
