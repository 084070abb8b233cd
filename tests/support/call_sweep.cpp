#include "tests/support/call_sweep.h"

#include "custom_actions/common/text.h"
#include "support/import_patch.h"
#include "support/pe_image.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <tuple>
#include <utility>

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
ULONG_PTR failure_of(std::string_view name)
{
    // INVALID_HANDLE_VALUE, WAIT_FAILED, INVALID_FILE_ATTRIBUTES, INSTALLSTATE_UNKNOWN, -1.
    if (has_prefix(
            name, {"CreateFile", "CreateTool", "GetFileAttr", "MsiGetComp", "MsiProcess", "WaitForSing"})) {
        return ~ULONG_PTR{0};
    }
    if (has_prefix(name, {"GetSecurityI", "MsiClose", "MsiGet", "MsiRecord", "MsiSet", "Reg"})) {
        return ERROR_ACCESS_DENIED;
    }
    constexpr ULONG_PTR access_denied = 0x80070005; // E_ACCESSDENIED
    return has_prefix(name, {"AssocQuery", "CoCreate", "CoInitialize"}) ? access_denied : 0;
}

// The type by which a stub calls any function: none takes more than twelve arguments, and none takes a
// floating-point one, so passing on twelve words passes on all of them.
using word = ULONG_PTR;
using any_function = word WINAPI(word, word, word, word, word, word, word, word, word, word, word, word);

constexpr std::size_t MOST_FUNCTIONS = 160;

// The path of the key that a registry call uses or is to open: "...\\Software\\Classes\\.ini".
std::wstring key_of(std::string_view call, word key, word subkey)
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
    query(key, name_information, &name, sizeof name - sizeof(wchar_t), &size);
    std::wstring path = name.text;
    if (call.starts_with("RegOpen") || call.starts_with("RegCreate")) {
        // NOLINTBEGIN(performance-no-int-to-ptr): a pointer passed as a word
        path += L'\\';
        path += call.ends_with('A') ? custom_actions::widen(reinterpret_cast<const char*>(subkey))
                                    : reinterpret_cast<const wchar_t*>(subkey);
        // NOLINTEND(performance-no-int-to-ptr)
    }
    return path;
}

} // namespace

struct call_sweep::function {
    std::string name;
    std::unique_ptr<import_patch<any_function>> patch;
};

// Receives the calls of the function with this index. A closing function still closes when it fails, so that
// the fault itself leaks nothing.
template <std::size_t Index, class... Words>
word WINAPI call_sweep::stub(Words... arguments)
{
    const auto& [name, patch] = active_->functions_[Index];
    const words all{arguments...};
    if (active_->observer_) {
        active_->observer_(name, all);
    }
    const bool failing = active_->fails(name, all[0]);
    if (failing && active_->planned_ == fault::ends_thread) {
        ExitThread(KILLED);
    }
    if (!failing) {
        return patch->original()(arguments...);
    }
    if (name.starts_with("Reg")) {
        active_->failed_keys_.push_back(key_of(name, all[0], all[1]));
    }
    if (name.find("Close") != std::string::npos) {
        patch->original()(arguments...);
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return failure_of(name);
}

call_sweep::call_sweep(HMODULE module)
{
    for (const auto& [library, name, slot, by_number] : pe_image{module}.imports()) {
        if (library != "msvcrt.dll" && !is_excluded(name)) {
            functions_.push_back({.name = name, .patch = nullptr});
        }
    }
    active_ = this;
    const auto stubs = []<std::size_t... Indexes>(std::index_sequence<Indexes...> /*all*/) {
        return std::array<any_function*, MOST_FUNCTIONS>{&stub<Indexes>...};
    }(std::make_index_sequence<MOST_FUNCTIONS>{});
    for (std::size_t index = 0; auto& [name, patch] : functions_) {
        patch = std::make_unique<import_patch<any_function>>(module, name.c_str(), stubs.at(index++));
    }
}

call_sweep::~call_sweep() = default;

void call_sweep::plan(std::size_t nth, fault what)
{
    calls_.clear();
    failed_ = 0;
    failed_keys_.clear();
    nth_ = nth;
    planned_ = what;
}

bool call_sweep::fails(const std::string& called, ULONG_PTR first_argument)
{
    const DWORD last_error = GetLastError();
    bool failing = false;
    // A wait for a thread of this process is never failed.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle passed as a word
    if (!is_only_observed(called) &&
        (called != "WaitForSingleObject" || GetThreadId(reinterpret_cast<HANDLE>(first_argument)) == 0)) {
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
