#pragma once

#include "tests/support/failing_import.h"
#include "tests/support/played_clock.h"

#include <windows.h>

#include <map>
#include <memory>
#include <string_view>
#include <vector>

namespace test_support {

// The machine around one module, played, so that an action can be run a thousand times: real programs are
// listed, asked, opened and inspected, but end only in the play; a service "WSearch" is started and stopped;
// scripts succeed at once and leave their log; no time passes but for a clock that is turned by sleeping.
// What else the module does is real. Everything that it is given to close (service handles and environments
// too) is a real handle, and one left open is counted with the others. One can live at a time.
class played_machine {
public:
    // Throws std::runtime_error where `module` does not import what is played here.
    explicit played_machine(HMODULE module);

    struct program {
        std::wstring_view name;
        std::wstring_view library; // which it has loaded
        bool polite = false;       // ends when a window of its is asked to, not only when terminated
        bool running = true;
    };

    // Has a process in the list of processes, in which there is nothing else.
    void list(DWORD process, const program& listed) { programs_[process] = listed; }

    // Every listed program runs again, but not those of this name until one is started, and the service is in
    // this state.
    void begin_anew(DWORD search_state = SERVICE_RUNNING, std::wstring_view ended = L"");

private:
    program* find(DWORD process);
    void play_snapshots();
    void play_programs();
    void play_service();

    template <function_name Name, class Function, class Answer>
    void answer(Function* played, Answer result);

    HMODULE module_;
    std::map<DWORD, program> programs_;
    DWORD next_ = 0;      // from which process on a snapshot is read
    DWORD inspected_ = 0; // whose modules the last one has
    bool at_library_ = false;
    DWORD search_state_ = SERVICE_RUNNING;
    played_clock clock_;
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
