#include "tests/support/call_sweep.h"

#include "custom_actions/common/text.h"
#include "support/pe_image.h"

#include <algorithm>
#include <bit>

namespace test_support {
namespace {

bool has_prefix(std::string_view name, const std::vector<std::string_view>& prefixes)
{
    return std::ranges::any_of(prefixes, [&](auto prefix) { return name.starts_with(prefix); });
}

// Functions that are only observed: those without a result, or one that is not checked (the process ends if
// its identity cannot be restored).
bool is_only_observed(std::string_view name)
{
    return has_prefix(name, {"CoUninit", "SetThreadToken", "SHChange", "Sleep"});
}

// Functions that are left alone: queries that cannot fail, and what the C and C++ runtimes call for
// themselves: locks, threads, exceptions, code pages, random numbers.
bool is_excluded(std::string_view name)
{
    return has_prefix(
        name,
        {"AddVec",     "Compare",    "CreateEvent", "CreateSem",   "CryptAcq",   "CryptGen",   "CryptRel",
         "DeleteCrit", "DestroyEnv", "Duplicate",   "EnterCrit",   "EqualSid",   "GetCurrent", "GetHandle",
         "GetLast",    "GetModule",  "GetProcAddr", "GetProcessA", "GetSystemT", "GetThread",  "GetTick",
         "Initialize", "IsD",        "IsWellKnown", "LeaveCrit",   "LoadLib",    "LocalFree",  "OutputDeb",
         "RaiseExc",   "ReleaseSem", "RemoveVec",   "ResetEvent",  "ResumeThr",  "Rtl",        "SetEvent",
         "SetLast",    "SetProcess", "SetThreadC",  "SetThreadP",  "Suspend",    "SysFree",    "Tls",
         "TryEnter",   "Virtual",    "WaitForMul",  "WideChar",    "__C_spec"});
}

// What a function returns when it fails; by default 0 (FALSE, no handle, no characters). If 0 is no failure
// of a function missing here, its caller succeeds, and the fault sweep reports that as unexpected.
word failure_of(std::string_view name)
{
    // INVALID_HANDLE_VALUE, WAIT_FAILED, INVALID_FILE_ATTRIBUTES, INSTALLSTATE_UNKNOWN, -1.
    if (has_prefix(
            name, {"CreateFile", "CreateTool", "GetFileAttr", "MsiGetComp", "MsiProcess", "WaitForSing"})) {
        return ~word{0};
    }
    if (has_prefix(name, {"GetSecurityI", "MsiClose", "MsiGet", "MsiRecord", "MsiSet", "Reg"})) {
        return ERROR_ACCESS_DENIED;
    }
    constexpr word access_denied = 0x80070005; // E_ACCESSDENIED
    return has_prefix(name, {"AssocQuery", "CoCreate", "CoInitialize"}) ? access_denied : 0;
}

// The path of the key that a registry call uses or is to open: "...\\Software\\Classes\\.ini".
std::wstring key_of(std::string_view call, const words& arguments)
{
    using query_key = LONG WINAPI(word, int, void*, ULONG, ULONG*);

    struct {
        ULONG size;
        wchar_t text[1024];
    } name{};

    ULONG size = 0;
    constexpr int name_information = 3;
    auto* const ntdll = GetModuleHandleW(L"ntdll.dll");
    auto* const query = std::bit_cast<query_key*>(GetProcAddress(ntdll, "NtQueryKey"));
    query(arguments[0], name_information, &name, sizeof name - sizeof(wchar_t), &size);
    std::wstring path = name.text;
    if (call.starts_with("RegOpen") || call.starts_with("RegCreate")) {
        path += L'\\';
        path += call.ends_with('A') ? custom_actions::widen(from_word<const char*>(arguments[1]))
                                    : from_word<const wchar_t*>(arguments[1]);
    }
    return path;
}

} // namespace

call_sweep::call_sweep(HMODULE module)
{
    for (const auto& [library, name, slot, by_number] : pe_image{module}.imports()) {
        if (library != "msvcrt.dll" && !is_excluded(name)) {
            hooks_.emplace_back(module, name, [this](const import_hook& hook, const words& arguments) {
                return on_call(hook, arguments);
            });
        }
    }
}

// A closing function still closes when it fails, so that the fault itself leaks nothing.
std::optional<word> call_sweep::on_call(const import_hook& hook, const words& arguments)
{
    const std::string& name = hook.function();
    if (observer_) {
        observer_(name, arguments);
    }
    if (!fails(name, arguments[0])) {
        return std::nullopt;
    }
    if (planned_ == fault::ends_thread) {
        ExitThread(KILLED);
    }
    if (name.starts_with("Reg")) {
        failed_keys_.push_back(key_of(name, arguments));
    }
    if (name.find("Close") != std::string::npos) {
        (void)hook.call(arguments);
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return failure_of(name);
}

void call_sweep::plan(std::size_t nth, fault what)
{
    calls_.clear();
    failed_ = 0;
    failed_keys_.clear();
    nth_ = nth;
    planned_ = what;
}

bool call_sweep::fails(const std::string& called, word first_argument)
{
    const DWORD last_error = GetLastError();
    bool failing = false;
    // A wait for a thread of this process is never failed.
    if (!is_only_observed(called) &&
        (called != "WaitForSingleObject" || GetThreadId(from_word<HANDLE>(first_argument)) == 0)) {
        const std::scoped_lock lock{counting_};
        calls_.push_back(called);
        failing = calls_.size() == nth_;
        failing = failing || (planned_ == fault::staying && failed_ != 0 && calls_[nth_ - 1] == called);
        failed_ += failing ? 1 : 0;
    }
    SetLastError(last_error);
    return failing;
}

} // namespace test_support
