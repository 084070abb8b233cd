#pragma once

#include "package/toy_suite/powershell/packages.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace toy_powershell {

// What the statements of one run pass on to later ones.
struct run_state {
    package_identity identity; // $id; empty until a manifest was read
    std::string output;        // UTF-8, lines end in LF
};

// A statement's literals, in order.
using literals = std::vector<std::wstring>;

// A statement that the stand-in understands: its text (a pattern for script_reader) and its effect. `run`
// throws std::runtime_error when PowerShell would report an error that ends the script.
struct statement {
    const wchar_t* text;
    void (*run)(run_state& state, const literals& values);
};

struct script_step {
    const statement* what;
    literals values;
};

struct parsed_script {
    std::optional<std::wstring> log; // the file that takes the output; without it, the standard streams do
    std::vector<script_step> steps;
};

// The script's steps; nothing if any part of it is not understood.
std::optional<parsed_script> parse(std::wstring_view script);

} // namespace toy_powershell
