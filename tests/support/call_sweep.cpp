#include "tests/support/call_sweep.h"

#include "support/import_patch.h"
#include "support/pe_image.h"

#include <algorithm>
#include <array>
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
        {"AddVec",     "Compare",    "CoUninit",    "CreateEvent", "CreateSem",  "CryptAcq",   "CryptGen",
         "CryptRel",   "DeleteCrit", "DestroyEnv",  "Duplicate",   "EnterCrit",  "GetCurrent", "GetHandle",
         "GetLast",    "GetModule",  "GetProcAddr", "GetProcessA", "GetSystemT", "GetThread",  "GetTick",
         "Initialize", "IsD",        "LeaveCrit",   "LoadLib",     "LocalFree",  "OutputDeb",  "RaiseExc",
         "ReleaseSem", "RemoveVec",  "ResetEvent",  "ResumeThr",   "Rtl",        "SetEvent",   "SetLast",
         "SetProcess", "SetThread",  "SHChange",    "Sleep",       "Suspend",    "SysFree",    "Tls",
         "TryEnter",   "Virtual",    "WaitForMul",  "WideChar",    "__C_spec"});
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
    // An LSTATUS or an installer code; an HRESULT.
    if (begins_with_one(name, {"MsiClose", "MsiGet", "MsiRecord", "MsiSet", "Reg"})) {
        return ERROR_ACCESS_DENIED;
    }
    return begins_with_one(name, {"AssocQuery", "CoCreate", "CoInitialize"}) ? 0x80070005 : 0;
}

// What every function is called as here. None takes more than twelve arguments, and none in a register for
// floating-point numbers, so that passing on twelve passes on all.
using word = ULONG_PTR;
using any_function = word WINAPI(word, word, word, word, word, word, word, word, word, word, word, word);

constexpr std::size_t MOST_FUNCTIONS = 160;

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
    if (!active_->fails(name, std::get<0>(std::tuple{words...}))) {
        return patch->original()(words...);
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
