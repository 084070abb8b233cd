#pragma once

#include "package/toy_suite/registry_state.h"

#include <optional>
#include <string>
#include <string_view>

namespace toy_powershell {

// Where the stand-in has what it is told, what it was given, and what it pretends about the machine; tests
// and scripts read and write it there.
inline constexpr const wchar_t* STATE = LR"(Software\QuorbelStandIn\PowerShell)";

// The state's key, or one below it.
class state_key : public toy_suite::registry_state {
public:
    explicit state_key(const std::wstring& below = L"")
        : registry_state{STATE + (below.empty() ? L"" : L'\\' + below)}
    {
    }
};

inline constexpr const wchar_t* ORDERS = L"Orders";

// An order is a value of this key of the state: "ARGUMENT TEXT", or "TEXT" alone where it takes no
// argument. It holds for everything that contains the text. (An empty text is contained in everything.)
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
// Another value there, TrayWaitMs (a number), shortens the 15 seconds in which the tray has to come.
//
// Whether the order `name` holds for `text`.
bool ordered(const wchar_t* name, std::wstring_view text);

// The argument of the order `name`, where it holds for `text`.
std::optional<std::wstring> order_argument(const wchar_t* name, std::wstring_view text);

} // namespace toy_powershell
