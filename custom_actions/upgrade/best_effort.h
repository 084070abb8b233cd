#pragma once

#include <exception>
#include <optional>
#include <string>

namespace custom_actions::controlled_upgrade {

// Runs one step of a sequence that goes on whatever fails; returns the failure's message.
template <class Step>
std::optional<std::string> failure_of(Step step)
{
    try {
        step();
        return std::nullopt;
    } catch (const std::exception& error) {
        return error.what();
    }
}

} // namespace custom_actions::controlled_upgrade
