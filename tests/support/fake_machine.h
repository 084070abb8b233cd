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

// The machine around one module, played, so that an action can be run a thousand times: real programs are
// listed, asked, opened and inspected, but end only in the play, terminated or, without a library, asked at a
// window of theirs; a service "WSearch" is started and stopped; scripts succeed at once and leave their log;
// no time passes but for a clock that is turned by sleeping. What else the module does is real. Everything
// that it is given to close (service handles and environments too) is a real handle, and one left open is
// counted with the others. One can live at a time.
class fake_machine {
public:
    // Throws std::runtime_error where `module` does not import what is played here.
    explicit fake_machine(HMODULE module);

    struct program {
        std::wstring_view name;
        std::wstring_view library; // which it has loaded
    };

    std::map<DWORD, program> programs; // by their processes
    std::set<DWORD> running;           // those of them that are listed; a program that is started joins them
    DWORD search_state = SERVICE_RUNNING;

private:
    void fake_snapshots();
    void fake_programs();
    void fake_service();

    template <function_name Name, class Function, class Answer>
    void answer(Function* played, Answer result);

    HMODULE module_;
    DWORD last_listed_ = 0; // in the snapshot that is being read
    DWORD inspected_ = 0;   // whose library is the next module
    fake_clock clock_;
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
