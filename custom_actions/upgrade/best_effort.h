#pragma once

#include <exception>
#include <string>

namespace custom_actions::controlled_upgrade {

// Runs one step of a sequence that goes on whatever fails. The message of a failure is appended to
// `failures`, between `before` and `after`.
template <class Step>
void attempt(std::string& failures, Step step, const char* before = "", const char* after = "")
{
    try {
        step();
    } catch (const std::exception& error) {
        failures.append(before).append(error.what()).append(after);
    }
}

} // namespace custom_actions::controlled_upgrade
