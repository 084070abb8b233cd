#include "tests/support/call_sweep.h"

#include "support/pe_image.h"

#include <algorithm>
#include <optional>
#include <regex>

namespace test_support {
namespace {

struct treatment {
    std::regex functions;
    bool seen;
    std::optional<word> failure; // what they return when they fail; nothing if they are only observed
};

// How the functions are treated that a name belongs to: the first row that it matches. If 0 is no failure of
// a function that only the last row has, its caller succeeds, and the fault sweep reports that as unexpected.
const treatment& treatment_of(const std::string& name)
{
    constexpr word access_denied = 0x80070005; // E_ACCESSDENIED
    static const treatment rows[]{
        // Queries that cannot fail, and what the C and C++ runtimes call for themselves: locks, threads,
        // exceptions, code pages, random numbers.
        {std::regex{
             "(AddVec|Compare|CreateEvent|CreateSem|Crypt(Acq|Gen|Rel)|DeleteCrit|DestroyEnv|Duplicate|"
             "EnterCrit|EqualSid|Get(Current|Handle|Last|Module|ProcAddr|ProcessA|SystemT|Thread|Tick)|"
             "Initialize|IsD|IsWellKnown|LeaveCrit|LoadLib|LocalFree|OutputDeb|RaiseExc|ReleaseSem|"
             "RemoveVec|ResetEvent|ResumeThr|Rtl|Set(Event|Last|Process|ThreadC|ThreadP)|Suspend|SysFree|"
             "Tls|TryEnter|Virtual|WaitForMul|WideChar|__C_spec).*"},
         false,
         {}},
        // Without a result, or with one that is not checked (the process ends if its identity cannot be
        // restored).
        {std::regex{"(CoUninit|SetThreadToken|SHChange|Sleep).*"}, true, {}},
        // INVALID_HANDLE_VALUE, INVALID_FILE_ATTRIBUTES, INSTALLSTATE_UNKNOWN, -1, WAIT_FAILED.
        {std::regex{"(Create(File|Tool)|GetFileAttr|MsiGetComp|MsiProcess|WaitForSing).*"}, true, ~word{0}},
        {std::regex{"(GetSecurityI|Msi(Close|Get|Record|Set)|Reg).*"}, true, ERROR_ACCESS_DENIED},
        {std::regex{"(AssocQuery|CoCreate|CoInitialize).*"}, true, access_denied},
        {std::regex{".*"}, true, 0}}; // FALSE, no handle, no characters
    return *std::ranges::find_if(
        rows, [&](const treatment& row) { return std::regex_match(name, row.functions); });
}

} // namespace

// A closing function still closes when it fails, so that the fault itself leaks nothing.
call_sweep::call_sweep(HMODULE module)
{
    for (const auto& [library, name, slot, by_number] : pe_image{module}.imports()) {
        const treatment& how = treatment_of(name);
        if (library == "msvcrt.dll" || !how.seen) {
            continue;
        }
        const auto on_call = [this, called = name, &how](const import_hook& hook, const words& arguments) {
            const bool failing = fails(called, how.failure.has_value(), arguments);
            if (failing && called.find("Close") != std::string::npos) {
                (void)hook.call(arguments);
            }
            if (failing) {
                SetLastError(ERROR_ACCESS_DENIED);
            }
            return failing ? how.failure : std::nullopt;
        };
        hooks_.emplace_back(module, name, on_call);
    }
}

void call_sweep::plan(std::size_t nth, fault what)
{
    calls_.clear();
    failed_ = 0;
    nth_ = nth;
    planned_ = what;
}

bool call_sweep::fails(const std::string& function, bool can_fail, const words& arguments)
{
    const DWORD last_error = GetLastError();
    if (observer_) {
        observer_(function, arguments);
    }
    // A wait for a thread of this process is never failed.
    const bool may_fail =
        can_fail && (function != "WaitForSingleObject" || GetThreadId(from_word<HANDLE>(arguments[0])) == 0);
    bool failing = false;
    if (may_fail) {
        const std::scoped_lock lock{counting_};
        calls_.push_back(function);
        failing = calls_.size() == nth_ ||
                  (planned_ == fault::staying && failed_ != 0 && calls_[nth_ - 1] == function);
        failed_ += failing ? 1U : 0U;
    }
    if (failing && planned_ == fault::ends_thread) {
        ExitThread(KILLED);
    }
    SetLastError(last_error);
    return failing;
}

} // namespace test_support
