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

bool begins_with_one(std::string_view name, const std::vector<std::string_view>& beginnings)
{
    return std::ranges::any_of(beginnings, [&](auto beginning) { return name.starts_with(beginning); });
}

// What returns nothing, or nothing that anybody looks at (whoever cannot put an identity back ends the
// process), what only tells what the process knows, and what the C and C++ runtimes do for themselves: locks,
// threads, exceptions, code pages, random numbers.
bool is_left_alone(std::string_view name)
{
    return begins_with_one(
        name,
        {"AddVec",    "Compare",    "CoUninit",   "CreateEvent", "CreateSem",   "CryptAcq",   "CryptGen",
         "CryptRel",  "DeleteCrit", "DestroyEnv", "Duplicate",   "EnterCrit",   "EqualSid",   "GetCurrent",
         "GetHandle", "GetLast",    "GetModule",  "GetProcAddr", "GetProcessA", "GetSystemT", "GetThread",
         "GetTick",   "Initialize", "IsD",        "IsWellKnown", "LeaveCrit",   "LoadLib",    "LocalFree",
         "OutputDeb", "RaiseExc",   "ReleaseSem", "RemoveVec",   "ResetEvent",  "ResumeThr",  "Rtl",
         "SetEvent",  "SetLast",    "SetProcess", "SetThread",   "SHChange",    "Sleep",      "Suspend",
         "SysFree",   "Tls",        "TryEnter",   "Virtual",     "WaitForMul",  "WideChar",   "__C_spec"});
}

// What a function returns when it fails. One that nothing is said of returns FALSE, no handle or no
// characters: where that is no failure, its caller succeeds, which the fault sweep expects of no function
// that it does not know.
ULONG_PTR failure_of(std::string_view name)
{
    // INVALID_HANDLE_VALUE, WAIT_FAILED, INVALID_FILE_ATTRIBUTES, INSTALLSTATE_UNKNOWN, -1.
    if (begins_with_one(
            name, {"CreateFile", "CreateTool", "GetFileAttr", "MsiGetComp", "MsiProcess", "WaitForSing"})) {
        return ~ULONG_PTR{0};
    }
    // A status or an installer code; an HRESULT.
    if (begins_with_one(name, {"GetSecurityI", "MsiClose", "MsiGet", "MsiRecord", "MsiSet", "Reg"})) {
        return ERROR_ACCESS_DENIED;
    }
    return begins_with_one(name, {"AssocQuery", "CoCreate", "CoInitialize"}) ? 0x80070005 : 0;
}

// What every function is called as here. None takes more than twelve arguments, and none in a register for
// floating-point numbers, so that passing on twelve passes on all.
using word = ULONG_PTR;
using any_function = word WINAPI(word, word, word, word, word, word, word, word, word, word, word, word);

constexpr std::size_t MOST_FUNCTIONS = 160;

// The path of the key that a call to the registry is about, or is to be opened:
// "...\\Software\\Classes\\.ini".
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
        // NOLINTBEGIN(performance-no-int-to-ptr): what comes in a register
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

// What the calls of the function with this index go to. One that closes something does so when it fails, too:
// nothing looks leaked that is not.
template <std::size_t Index, class... Words>
word WINAPI call_sweep::stub(Words... words)
{
    const auto& [name, patch] = active_->functions_[Index];
    const std::tuple arguments{words...};
    if (!active_->fails(name, std::get<0>(arguments))) {
        return patch->original()(words...);
    }
    if (name.starts_with("Reg")) {
        active_->failed_keys_.push_back(key_of(name, std::get<0>(arguments), std::get<1>(arguments)));
    }
    if (name.find("Close") != std::string::npos) {
        patch->original()(words...);
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return failure_of(name);
}

call_sweep::call_sweep(HMODULE module, const std::vector<std::string_view>& only)
{
    for (const auto& [library, name, slot, by_number] : pe_image{module}.imports()) {
        if (library != "msvcrt.dll" && !is_left_alone(name) &&
            (only.empty() || begins_with_one(name, only))) {
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
    // No wait for a thread of one's own fails.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): what comes in a register
    if (called != "WaitForSingleObject" || GetThreadId(reinterpret_cast<HANDLE>(first_argument)) == 0) {
        const std::scoped_lock lock{counting_};
        calls_.push_back(called);
        failing = calls_.size() == nth_;
        if (failing && planned_ == fault::ends_process) {
            TerminateProcess(GetCurrentProcess(), KILLED);
        }
        failing = failing || (planned_ == fault::staying && failed_ != 0 && calls_[nth_ - 1] == called);
        failed_ += failing ? 1 : 0;
    }
    SetLastError(last_error);
    return failing;
}

} // namespace test_support
