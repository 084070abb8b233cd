#include "package/toy_suite/powershell/script.h"

#include <algorithm>

namespace toy_powershell {
namespace {

// The frame of a script whose output goes to a log file.
constexpr const wchar_t* LOGGED_START =
    L"$ErrorActionPreference='Stop'; $ProgressPreference='SilentlyContinue'; try { & { ";
constexpr const wchar_t* LOGGED_END =
    L" } *>&1 | Out-File -LiteralPath %s -Encoding utf8; exit 0 } "
    L"catch { $_ | Out-String | Out-File -LiteralPath %s -Encoding utf8 -Append; exit 1 }";

// The following functions move what the text begins with to the end of `values`; false if it is not there.

bool take_literal(std::wstring_view& text, literals& values)
{
    // To PowerShell, typographic single quotes are quotes, too.
    const auto is_quote = [&](std::size_t at) {
        return at < text.size() && (text[at] == L'\'' || (text[at] >= L'\u2018' && text[at] <= L'\u201B'));
    };
    if (!is_quote(0)) {
        return false;
    }
    std::wstring value;
    for (std::size_t at = 1; at < text.size(); ++at) {
        if (is_quote(at)) {
            ++at;
            if (!is_quote(at)) { // otherwise it is doubled and stands for one
                text.remove_prefix(at);
                values.push_back(std::move(value));
                return true;
            }
        }
        value += text[at];
    }
    return false;
}

bool take_digits(std::wstring_view& text, literals& values)
{
    const std::size_t size = std::min(text.find_first_not_of(L"0123456789"), text.size());
    values.emplace_back(text.substr(0, size));
    text.remove_prefix(size);
    return size != 0;
}

// `kind` is the letter of the pattern.
bool take_value(std::wstring_view& text, wchar_t kind, literals& values)
{
    if (kind == L'd') {
        return take_digits(text, values);
    }
    bool taken = take_literal(text, values);
    while (taken && kind == L'l' && text.starts_with(L',')) {
        text.remove_prefix(1);
        taken = take_literal(text, values);
    }
    return taken;
}

// Takes a statement off the front of the script. If the script does not begin with it, nothing changes.
bool take(std::wstring_view& script, std::wstring_view pattern, literals& values)
{
    std::wstring_view rest = script;
    literals taken;
    while (!pattern.empty()) {
        const std::size_t plain = std::min(pattern.find(L'%'), pattern.size());
        if (!rest.starts_with(pattern.substr(0, plain))) {
            return false;
        }
        rest.remove_prefix(plain);
        pattern.remove_prefix(plain);
        if (!pattern.empty()) {
            if (!take_value(rest, pattern[1], taken)) {
                return false;
            }
            pattern.remove_prefix(2);
        }
    }
    script = rest;
    values.insert(values.end(), taken.begin(), taken.end());
    return true;
}

} // namespace

std::optional<parsed_script> parse(std::wstring_view script)
{
    parsed_script parsed;
    literals logs;
    const bool logged = take(script, LOGGED_START, logs);
    const auto statements = logged ? LOGGED_STATEMENTS : WHOLE_SCRIPTS;
    while (logged ? !take(script, LOGGED_END, logs) : !script.empty()) {
        script_step step{};
        const auto next = std::ranges::find_if(
            statements, [&](const statement& each) { return take(script, each.text, step.values); });
        if (next == statements.end()) {
            return std::nullopt;
        }
        step.what = &*next;
        parsed.steps.push_back(std::move(step));
    }
    if (logged) {
        parsed.log = logs[0];
    }
    const bool complete = logged ? script.empty() && logs[0] == logs[1] : parsed.steps.size() == 1;
    return complete ? std::optional{std::move(parsed)} : std::nullopt;
}

} // namespace toy_powershell
