#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace custom_actions {

// The text of an exception as the log takes it: every byte, read as a signed 8-bit number, becomes one UTF-16
// unit. ASCII passes unchanged; bytes from 0x80 up become U+FF80 to U+FFFF and are deliberately not decoded,
// so that the line shows the bytes whatever code page the message was made in. Throws std::bad_alloc alone.
std::wstring widen(std::string_view text);

// Whether both are the same but for the case of their letters, by the system's own rule for names.
bool equal_ignoring_case(std::wstring_view left, std::wstring_view right) noexcept;

// The number that `text`, decimal digits and nothing else, stands for. Throws std::invalid_argument "invalid
// stoul argument" where it is anything else or empty, std::out_of_range "stoul argument out of range" beyond
// 32 bits.
std::uint32_t parse_unsigned(std::wstring_view text);

} // namespace custom_actions
