#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace custom_actions {

// The text of an exception as the log takes it: each byte, read as a signed 8-bit number, becomes one UTF-16
// unit. ASCII passes unchanged. Bytes from 0x80 up become U+FF80 to U+FFFF; they are deliberately not
// decoded, so that the line shows the bytes whatever code page the message is in. Throws std::bad_alloc
// alone.
std::wstring widen(std::string_view text);

// Whether the two differ at most in the case of their letters, by the system's own rule for names.
bool equal_ignoring_case(std::wstring_view left, std::wstring_view right) noexcept;

// Reads a number of decimal digits. Throws std::invalid_argument "invalid stoul argument" if `text` is empty
// or has any other character, and std::out_of_range "stoul argument out of range" if the number does not fit
// into 32 bits.
std::uint32_t parse_unsigned(std::wstring_view text);

} // namespace custom_actions
