// The stand-in for Windows PowerShell. It understands exactly the two command lines and the statements that
// the custom actions use. Packages and folder windows are entries in the registry; processes are real.
// Anything else is refused: exit code 64, with the text on standard error and in the state's value "Refused".
//
// Every script is recorded in the state's key "Scripts" under its number, counted from 1. "ElevationType" is
// the TOKEN_ELEVATION_TYPE of the last run.

#include "package/toy_suite/powershell/script.h"
#include "package/toy_suite/powershell/state.h"
#include "package/toy_suite/powershell/text.h"
#include "package/toy_suite/process.h"

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace toy_powershell {
namespace {

constexpr int REFUSED = 64;

// The text of Base64-encoded UTF-16.
std::optional<std::wstring> decode(const std::wstring& encoded)
{
    std::wstring text(encoded.size(), L'\0'); // more than enough
    auto size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    auto* const bytes = reinterpret_cast<BYTE*>(text.data());
    const BOOL decoded =
        CryptStringToBinaryW(encoded.c_str(), 0, CRYPT_STRING_BASE64, bytes, &size, nullptr, nullptr);
    text.resize(size / sizeof(wchar_t));
    return decoded != FALSE && size % sizeof(wchar_t) == 0 ? std::optional{std::move(text)} : std::nullopt;
}

// The script in either command line; nothing if the command line is neither.
std::optional<std::wstring> read_script(const std::vector<std::wstring>& arguments)
{
    static constexpr std::wstring_view encoded =
        L"-NoProfile -NonInteractive -WindowStyle Hidden -EncodedCommand ";
    static constexpr std::wstring_view plain = L"-NoProfile -ExecutionPolicy Bypass -Command ";
    std::wstring options;
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        options.append(arguments[i]).push_back(L' ');
    }
    if (options == encoded) {
        return decode(arguments.back());
    }
    return options == plain ? std::optional{arguments.back()} : std::nullopt;
}

int refuse(const std::wstring& text)
{
    state_key{}.write(L"Refused", text);
    std::cerr << "The stand-in for PowerShell does not understand: " << narrow(text) << '\n';
    return REFUSED;
}

void record(const std::wstring& script)
{
    const state_key scripts{L"Scripts"};
    scripts.write(std::to_wstring(scripts.texts().size() + 1).c_str(), script);
    TOKEN_ELEVATION_TYPE elevation{};
    DWORD size = sizeof elevation;
    GetTokenInformation(GetCurrentProcessToken(), TokenElevationType, &elevation, size, &size);
    state_key{}.write(L"ElevationType", static_cast<DWORD>(elevation));
}

// Text of the size that the order asks for.
std::string filling(const wchar_t* order, const std::wstring& script)
{
    std::string text(std::stoul(order_argument(order, script).value_or(L"0")), '\0');
    std::ranges::generate(text, [i = 0U]() mutable { return static_cast<char>('0' + (i++ % 10)); });
    return text;
}

// Runs the steps, up to the first that throws.
void run_steps(const parsed_script& parsed, const std::wstring& script, run_state& state)
{
    if (ordered(L"Hang", script)) {
        Sleep(INFINITE);
    }
    if (ordered(L"Fail", script)) {
        throw std::runtime_error{"The script was ordered to fail"};
    }
    for (const script_step& step : parsed.steps) {
        step.what->run(state, step.values);
    }
}

// The log is opened before the first step. Output gets a byte-order mark there and CRLF line ends; without
// output the log stays empty.
int run_script(const parsed_script& parsed, const std::wstring& script)
{
    std::ofstream log;
    if (parsed.log) {
        if (ordered(L"NoLog", script)) {
            return 0;
        }
        log.open(std::filesystem::path{*parsed.log});
        if (!log) {
            std::cerr << "Out-File : Could not write '" << narrow(*parsed.log) << "'\n";
            return 1;
        }
    }
    run_state state;
    state.output = filling(L"PrintOut", script);
    std::string error = filling(L"PrintError", script);
    int code = 0;
    try {
        run_steps(parsed, script, state);
    } catch (const std::exception& thrown) {
        error.append(thrown.what()).push_back('\n');
        code = 1;
    }
    if (!parsed.log) {
        std::cout << state.output;
        std::cerr << error;
    } else if (const std::string text = state.output + error;
               !text.empty() && !ordered(L"EmptyLog", script)) {
        log << "\xEF\xBB\xBF" << text;
    }
    return code;
}

int run()
{
    const auto script = read_script(toy_suite::read_arguments());
    if (!script) {
        return refuse(GetCommandLineW());
    }
    record(*script);
    const auto parsed = parse(*script);
    if (!parsed) {
        return refuse(*script);
    }
    if (const auto code = order_argument(L"Die", *script)) {
        return static_cast<int>(std::stoul(*code));
    }
    return run_script(*parsed, *script);
}

} // namespace
} // namespace toy_powershell

int main()
{
    try {
        return toy_powershell::run();
    } catch (const std::exception& error) {
        std::cerr << "The stand-in for PowerShell is broken: " << error.what() << '\n';
        return toy_powershell::REFUSED;
    }
}
