#pragma once

#include "package/toy_suite/powershell/packages.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace toy_powershell {

// What the statements of one run hand on.
struct run_state {
    package_identity identity; // $id; without a name until a manifest was read
    std::string output;        // UTF-8, lines that end in a line feed
};

// The literals of a statement, in order.
using literals = std::vector<std::wstring>;

// A statement that the stand-in understands: its text, a pattern of script_reader, and what it does. It
// throws std::runtime_error where PowerShell would report an error that ends the script.
struct statement {
    const wchar_t* text;
    void (*run)(run_state& state, const literals& values);
};

struct script_step {
    const statement* what;
    literals values;
};

struct parsed_script {
    std::optional<std::wstring> log; // the file that takes what is printed, where it is not the streams
    std::vector<script_step> steps;
};

// A script as the steps that it consists of. Nothing where it holds anything that is not understood.
std::optional<parsed_script> parse(std::wstring_view script);

} // namespace toy_powershell
