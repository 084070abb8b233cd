#include "package/toy_suite/powershell/script_reader.h"

#include <optional>

namespace toy_powershell {
namespace {

// To PowerShell, typographic single quotes are quotes, too.
bool is_quote(wchar_t unit)
{
    return unit == L'\'' || (unit >= L'\u2018' && unit <= L'\u201B');
}

std::optional<std::wstring> take_literal(std::wstring_view& text)
{
    if (text.empty() || !is_quote(text.front())) {
        return std::nullopt;
    }
    std::wstring value;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (is_quote(text[i])) {
            if (i + 1 == text.size() || !is_quote(text[i + 1])) {
                text.remove_prefix(i + 1);
                return value;
            }
            ++i;
        }
        value += text[i];
    }
    return std::nullopt;
}

std::optional<std::wstring> take_digits(std::wstring_view& text)
{
    const std::size_t end = text.find_first_not_of(L"0123456789");
    if (end == 0 || text.empty()) {
        return std::nullopt;
    }
    std::wstring digits{text.substr(0, end)};
    text.remove_prefix(digits.size());
    return digits;
}

} // namespace

bool script_reader::take(std::wstring_view pattern, std::vector<std::wstring>& values)
{
    std::wstring_view rest = rest_;
    std::vector<std::wstring> taken;
    for (std::size_t at = 0; at < pattern.size();) {
        const std::size_t place = pattern.find(L'%', at);
        const std::wstring_view plain = pattern.substr(at, place - at);
        if (!rest.starts_with(plain)) {
            return false;
        }
        rest.remove_prefix(plain.size());
        at += plain.size();
        if (at < pattern.size()) {
            auto value = pattern[at + 1] == L's' ? take_literal(rest) : take_digits(rest);
            if (!value) {
                return false;
            }
            taken.push_back(std::move(*value));
            at += 2;
        }
    }
    rest_ = rest;
    values.insert(values.end(), taken.begin(), taken.end());
    return true;
}

} // namespace toy_powershell
