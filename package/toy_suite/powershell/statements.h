#pragma once

#include "package/toy_suite/powershell/packages.h"

#include <span>
#include <string>
#include <vector>

namespace toy_powershell {

// What the statements of one run pass on to later ones.
struct run_state {
    package_identity identity; // $id; empty until a manifest was read
    std::string output;        // UTF-8, lines end in LF
};

// A statement's literals, in order.
using literals = std::vector<std::wstring>;

// A statement that the stand-in understands: its text (a pattern, see script.h) and its effect. `run` throws
// std::runtime_error when PowerShell would report an error that ends the script.
struct statement {
    const wchar_t* text;
    void (*run)(run_state& state, const literals& values);
};

// The statements of the scripts whose output goes to a log file.
extern const std::span<const statement> LOGGED_STATEMENTS;

// The statements that are a whole script.
extern const std::span<const statement> WHOLE_SCRIPTS;

} // namespace toy_powershell
