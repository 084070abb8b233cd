#pragma once

#include "package/toy_suite/registry_state.h"

#include <optional>
#include <string>
#include <string_view>

namespace toy_powershell {

// The stand-in's orders, its record of scripts, and its fake packages and folder windows. Tests and scripts
// read and write them here.
inline constexpr const wchar_t* STATE = LR"(Software\QuorbelStandIn\PowerShell)";

// The state's key, or a subkey of it.
class state_key : public toy_suite::registry_state {
public:
    explicit state_key(const std::wstring& below = L"")
        : registry_state{STATE + (below.empty() ? L"" : L'\\' + below)}
    {
    }
};

inline constexpr const wchar_t* ORDERS = L"Orders";

// An order is a value of this subkey: "ARGUMENT TEXT", or "TEXT" alone if it takes no argument. It applies to
// whatever contains the text; an empty text applies to everything.
//
//   Hang       TEXT         the script hangs
//   Die        CODE TEXT    the script exits at once with this code
//   NoLog      TEXT         the script does nothing and exits with 0, without a log
//   EmptyLog   TEXT         the script runs, but its log stays empty
//   PrintOut   BYTES TEXT   the script prints this many bytes before anything else
//   PrintError BYTES TEXT   the same on standard error, or in the log if there is one
//   Fail       TEXT         the script then fails
//   FailAdd    TEXT         Add-AppxPackage fails for this path
//   LoseStart  TEXT         Start-Process of this program succeeds without starting it
//
// The number TrayWaitMs there replaces the 15 seconds that a script waits for the tray.
//
// True if the order `name` applies to `text`.
bool ordered(const wchar_t* name, std::wstring_view text);

// The argument of the order `name`, if it applies to `text`.
std::optional<std::wstring> order_argument(const wchar_t* name, std::wstring_view text);

} // namespace toy_powershell
