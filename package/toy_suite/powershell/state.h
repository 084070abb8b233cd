#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the stand-in is told, what it was given, and what it pretends about the machine: all of it below
// HKEY_CURRENT_USER\Software\QuorbelStandIn\PowerShell, where tests and scripts read and write it.
namespace toy_powershell {

// A key of the state, made where it is not there. Throws std::runtime_error where it cannot be.
class state_key {
public:
    explicit state_key(const std::wstring& below = L"");
    ~state_key();

    state_key(const state_key&) = delete;
    state_key& operator=(const state_key&) = delete;

    [[nodiscard]] std::optional<std::wstring> text(const wchar_t* name) const;
    [[nodiscard]] std::optional<DWORD> number(const wchar_t* name) const;
    [[nodiscard]] std::vector<std::wstring> list(const wchar_t* name) const;
    [[nodiscard]] std::vector<std::wstring> subkeys() const;
    [[nodiscard]] DWORD value_count() const;

    void write(const wchar_t* name, const std::wstring& text) const;
    void write(const wchar_t* name, DWORD number) const;
    void write(const wchar_t* name, const std::vector<std::wstring>& texts) const;
    void remove_subkey(const std::wstring& name) const;

private:
    HKEY key_ = nullptr;
};

// An order is a value of the state's key: "ARGUMENT TEXT", or "TEXT" alone where it takes no argument. It
// holds for everything that contains the text. (An empty text is contained in everything.)
//
//   Hang       TEXT         the script never ends
//   Die        CODE TEXT    the script ends at once with this code
//   NoLog      TEXT         the script does nothing and ends with 0, without its log
//   EmptyLog   TEXT         the script runs, and its log stays empty
//   PrintOut   BYTES TEXT   the script first prints this much
//   PrintError BYTES TEXT   the same on standard error (or into the log, where there is one)
//   Fail       TEXT         the script then fails
//   FailAdd    TEXT         Add-AppxPackage fails for this path
//   LoseStart  TEXT         Start-Process of this program succeeds, and nothing is started
//   KeepPackage TEXT        Remove-AppxPackage does nothing to this package
//
// Another value, TrayWaitMs (a number), shortens the 15 seconds in which the tray has to come.
//
// Whether the order `name` holds for `text`.
bool ordered(const wchar_t* name, std::wstring_view text);

// The argument of the order `name`, where it holds for `text`.
std::optional<std::wstring> order_argument(const wchar_t* name, std::wstring_view text);

} // namespace toy_powershell
