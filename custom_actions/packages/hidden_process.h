#pragma once

#include <windows.h>

#include <string>

namespace custom_actions {

struct process_output {
    DWORD exit_code = static_cast<DWORD>(-1); // stays so if there was no process or its code is unreadable
    std::wstring output;                      // all of its standard output
    std::wstring error;                       // all of its standard error
};

// Runs a complete command line without a window, as the caller, and waits for its end, however long that
// takes. Its output is read as UTF-8 in pieces of up to 4095 bytes; a character that two pieces share is not
// put together again. A failed start is reported in `error`. Throws windows_error "Cannot read output of a
// hidden process" if no thread can be started for that (nothing then waits for a reader), and std::bad_alloc,
// after the process has ended, if its output did not fit into memory.
process_output run_hidden_process(const std::wstring& command_line);

} // namespace custom_actions
