#include "package/toy_suite/powershell/text.h"

#include <windows.h>

namespace toy_powershell {

std::string narrow(std::wstring_view text)
{
    const wchar_t* const from = text.data();
    const int units = static_cast<int>(text.size());
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, from, units, nullptr, 0, nullptr, nullptr);
    std::string converted(static_cast<std::size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, from, units, converted.data(), bytes, nullptr, nullptr);
    return converted;
}

std::wstring widen(std::string_view text)
{
    const char* const from = text.data();
    const int bytes = static_cast<int>(text.size());
    const int units = MultiByteToWideChar(CP_UTF8, 0, from, bytes, nullptr, 0);
    std::wstring converted(static_cast<std::size_t>(units), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, from, bytes, converted.data(), units);
    return converted;
}

bool equal_ignoring_case(std::wstring_view left, std::wstring_view right)
{
    return CompareStringOrdinal(
               left.data(),
               static_cast<int>(left.size()),
               right.data(),
               static_cast<int>(right.size()),
               TRUE) == CSTR_EQUAL;
}

} // namespace toy_powershell
