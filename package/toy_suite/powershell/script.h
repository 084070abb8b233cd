#pragma once

#include "package/toy_suite/powershell/statements.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace toy_powershell {

struct script_step {
    const statement* what;
    literals values;
};

struct parsed_script {
    std::optional<std::wstring> log; // the file that takes the output; without it, the standard streams do
    std::vector<script_step> steps;
};

// The script's steps; nothing if any part of it is not understood. In a statement's text, "%s" stands for a
// literal in single quotes, "%l" for a list of them with commas between, "%d" for decimal digits.
std::optional<parsed_script> parse(std::wstring_view script);

} // namespace toy_powershell
