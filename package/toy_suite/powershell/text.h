#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace toy_powershell {

// UTF-16 to UTF-8.
inline std::string narrow(const std::wstring& text)
{
    const std::u8string converted = std::filesystem::path{text}.u8string();
    return {converted.begin(), converted.end()};
}

// Compares ordinally; stands for PowerShell's -eq and -like.
inline bool equal_ignoring_case(std::wstring_view left, std::wstring_view right)
{
    return CompareStringOrdinal(
               left.data(),
               static_cast<int>(left.size()),
               right.data(),
               static_cast<int>(right.size()),
               TRUE) == CSTR_EQUAL;
}

} // namespace toy_powershell
