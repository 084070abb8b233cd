#pragma once

#include <string>

namespace custom_actions {

struct version {
    int major_number = 0;
    int minor_number = 0;
    int build = 0;
    int revision = 0;

    bool operator==(const version&) const = default;
};

// Reads "%d.%d.%d.%d". Fields that the text does not supply stay 0; a text that is no version gives four
// zeros.
version parse_version(const wchar_t* text) noexcept;

// The four fields in decimal, with dots between them.
std::wstring to_text(const version& value);

// An upgrade is minor if the major and the minor number stay the same; a step back to a lower number is not.
// Build and revision do not count.
bool is_minor_upgrade(const version& installed, const version& offered) noexcept;

} // namespace custom_actions
