#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "tests/support/failing_import.h"
#include "tests/support/played_clock.h"

#include <windows.h>
#include <tlhelp32.h>
#include <winsvc.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

// The machine around one module, played, so that an action can be run a thousand times: real programs are
// listed, asked, opened and inspected, but end only in the play; a service "WSearch" is started and stopped;
// scripts succeed at once and leave their log; no time passes but for a clock that is turned by sleeping.
// What else the module does is real. One can live at a time.
class played_machine {
public:
    // Throws std::runtime_error where `module` does not import what is played here.
    explicit played_machine(HMODULE module);
    ~played_machine();

    played_machine(const played_machine&) = delete;
    played_machine& operator=(const played_machine&) = delete;

    // Has a process in the list of processes, in which there is nothing else, with one library loaded. One
    // that is `polite` ends when a window of its is asked to close, one that is not when it is terminated.
    void list(DWORD process, const std::wstring& name, bool polite, const std::wstring& loaded_library = L"");

    // Every listed program runs again, and the service as told; with no state it is not installed.
    void begin_anew(std::optional<DWORD> search_state = SERVICE_RUNNING);

    // Ends one in the play. A start of Explorer brings all of them back that are called so.
    void end(DWORD process);

    [[nodiscard]] std::size_t open_service_handles() const noexcept { return service_handles_.size(); }

private:
    struct program {
        std::wstring name;
        std::wstring library;
        bool polite;
        bool running;
    };

    program* find(DWORD process);
    program* find(HANDLE process);
    std::map<DWORD, program>::const_iterator next_running();
    void play_snapshots(HMODULE module);
    SC_HANDLE open_service_handle();
    void play_processes(HMODULE module);
    void play_scripts(HMODULE module);
    void play_service(HMODULE module);
    BOOL give_ended_process(PROCESS_INFORMATION& started) const;
    BOOL start_as_user(const wchar_t* command_line, PROCESS_INFORMATION& started);

    template <function_name Name, class Function, class Answer>
    void answer(HMODULE module, Answer answer);

    std::map<DWORD, program> programs_;
    DWORD next_ = 0;      // from which process on a snapshot is read
    DWORD inspected_ = 0; // whose modules the last one has
    bool at_library_ = false;
    std::map<SC_HANDLE, std::unique_ptr<char>> service_handles_;
    std::optional<DWORD> search_state_;
    DWORD search_start_type_ = SERVICE_AUTO_START;
    custom_actions::kernel_handle ended_process_;
    played_clock clock_;
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
