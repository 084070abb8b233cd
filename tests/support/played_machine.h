#pragma once

#include "tests/support/failing_import.h"
#include "tests/support/played_clock.h"

#include <windows.h>

#include <map>
#include <memory>
#include <string>
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

    // Has a process in the list of processes, in which there is nothing else, with one library loaded. One
    // that is `polite` ends when a window of its is asked to close, one that is not when it is terminated.
    void list(DWORD process, const std::wstring& name, bool polite, const std::wstring& loaded_library);

    // Every listed program runs again, and the service is in this state.
    void begin_anew(DWORD search_state);

    // Ends those of this name in the play. A start of such a program brings them back.
    void end(const std::wstring& name);

private:
    struct program {
        std::wstring name;
        std::wstring library;
        bool polite;
        bool running;
    };

    program* find(DWORD process);
    program* find(HANDLE process);
    template <class Entry>
    BOOL next_entry(Entry& entry);
    void play_snapshots(HMODULE module);
    void play_processes(HMODULE module);
    void play_scripts(HMODULE module);
    void play_service(HMODULE module);

    template <function_name Name, class Function, class Answer>
    void answer(HMODULE module, Answer result);

    std::map<DWORD, program> programs_;
    DWORD next_ = 0;      // from which process on a snapshot is read
    DWORD inspected_ = 0; // whose modules the last one has
    bool at_library_ = false;
    DWORD search_state_ = SERVICE_RUNNING;
    DWORD search_start_type_ = SERVICE_AUTO_START;
    played_clock clock_;
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
