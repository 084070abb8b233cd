#pragma once

#include <windows.h>

#include <string>
#include <vector>

// Real installations of the sample package, in this process's own Windows. They change the machine, so they
// run only where the environment variable DISPOSABLE_MACHINE says that they may; scripts/wine.sh sets it for
// the project's own Wine prefix.
namespace test_support {

// Whether the machine may be changed. A test that needs it skips with the name of the variable otherwise.
bool machine_is_disposable();

// The path of the sample package in this version, beside the test programs.
std::wstring sample_package(const std::wstring& version);

struct installation {
    UINT result;                    // what the installer returned
    std::vector<std::string> lines; // its log; a line's characters beyond ASCII are as the log has them

    // The lines that the actions wrote, in order: those that start with `prefix`, without it.
    [[nodiscard]] std::vector<std::string> lines_after(const std::string& prefix) const;
};

// Installs the package, or does what `properties` say ("REMOVE=ALL"), without any display and with a full
// log.
installation run_installer(const std::wstring& package, const std::wstring& properties = L"");

// The lines of an installer's log, which is UTF-16 on Windows and 8-bit elsewhere. Characters beyond ASCII
// become '?' in the first case. Throws std::runtime_error where the file cannot be read.
std::vector<std::string> read_log(const std::wstring& path);

// Removes every version of the sample package, whatever an earlier run has left.
void remove_sample_packages();

} // namespace test_support
