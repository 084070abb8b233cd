#include "tests/support/call_sweep.h"

#include "support/import_patch.h"
#include "support/pe_image.h"
#include "tests/support/test_limit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace test_support {
namespace {

enum class reaction {
    left_alone, // cannot fail, must not, or does not say what an action does: it is not counted
    fails,      // does nothing and returns a failure
    closes      // is done, so that nothing looks leaked that is not, and returns a failure
};

struct rule {
    reaction how;
    ULONG_PTR result;
    DWORD last_error;
    std::vector<std::string_view> names; // or their beginnings
};

bool begins_with_one(std::string_view name, const std::vector<std::string_view>& beginnings)
{
    return std::ranges::any_of(beginnings, [&](auto beginning) { return name.starts_with(beginning); });
}

// The first that fits counts.
const std::vector<rule>& rules()
{
    constexpr ULONG_PTR all_bits = ~ULONG_PTR{0};
    constexpr DWORD denied = ERROR_ACCESS_DENIED;
    static const std::vector<rule> all{
        {reaction::closes, FALSE, ERROR_INVALID_HANDLE, {"CloseHandle", "CloseServiceHandle"}},
        {reaction::closes, ERROR_INVALID_HANDLE, ERROR_SUCCESS, {"MsiCloseHandle", "RegCloseKey"}},
        // INVALID_HANDLE_VALUE, WAIT_FAILED, INVALID_FILE_ATTRIBUTES, INSTALLSTATE_UNKNOWN, -1.
        {reaction::fails,
         all_bits,
         denied,
         {"CreateFile", "CreateTool", "GetFileAttr", "MsiGetComp", "MsiProcess", "WaitForSing"}},
        // FALSE, no handle, no characters: those that the rules behind this one do not fit.
        {reaction::fails, 0, denied, {"CryptBinaryTo", "GetProcessTimes", "MsiCreateRecord"}},
        // An LSTATUS or an installer code; an HRESULT.
        {reaction::fails, denied, ERROR_SUCCESS, {"Msi", "Reg"}},
        {reaction::fails, 0x80070005, ERROR_SUCCESS, {"AssocQuery", "CoCreate", "CoInitialize"}},
        // What returns nothing, or nothing that anybody looks at (whoever cannot put an identity back ends
        // the process), what only tells what the process knows, and what the C and C++ runtimes do for
        // themselves: locks, threads, exceptions, code pages, random numbers.
        {reaction::left_alone,
         0,
         0,
         {"AddVec",    "Compare",    "CoUninit",   "CreateEvent", "CreateSem",   "CryptAcq",     "CryptGen",
          "CryptRel",  "DeleteCrit", "DestroyEnv", "Duplicate",   "EnterCrit",   "FormatMess",   "GetCurrent",
          "GetHandle", "GetLast",    "GetModule",  "GetProcAddr", "GetProcessA", "GetSystemTi",  "GetThread",
          "GetTick",   "Initialize", "IsDBCS",     "IsDebug",     "LeaveCrit",   "LoadLibraryW", "LocalFree",
          "OutputDeb", "QueryPerf",  "RaiseExc",   "ReleaseSem",  "RemoveVec",   "ResetEvent",   "ResumeThr",
          "Rtl",       "SetEvent",   "SetLast",    "SetProcessA", "SetThread",   "SHChange",     "Sleep",
          "Suspend",   "SysFree",    "Tls",        "TryEnter",    "Virtual",     "WaitForMul",   "WideChar",
          "__C_spec"}},
        {reaction::fails, 0, denied, {"Adjust",    "Change",   "Control",    "Convert",  "Copy",
                                      "Create",    "Enum",     "Find",       "Get",      "Imperson",
                                      "IsWow64",   "K32",      "Lookup",     "Module32", "MultiByte",
                                      "Open",      "Post",     "Process",    "Query",    "ReadFile",
                                      "SetHandle", "Start",    "StringFrom", "SysAlloc", "Terminate",
                                      "Thread32",  "WTSQuery", "WriteFile"}},
    };
    return all;
}

// What every function is called as here. None takes more than twelve arguments, and none in a register for
// floating-point numbers, so that passing on twelve passes on all.
using word = ULONG_PTR;
using any_function = word WINAPI(word, word, word, word, word, word, word, word, word, word, word, word);

constexpr std::size_t MOST_FUNCTIONS = 160;

} // namespace

struct call_sweep::function {
    std::string name;
    const rule* told;
    std::unique_ptr<import_patch<any_function>> patch;
};

// What the calls of the function with this index go to.
template <std::size_t Index, class... Words>
struct call_sweep::stub<Index, word WINAPI(Words...)> {
    static word WINAPI call(const Words... words)
    {
        const function& called = active_->functions_[Index];
        const rule& told = *called.told;
        if (!active_->fails(called, std::get<0>(std::tuple{words...}))) {
            return called.patch->original()(words...);
        }
        if (told.how == reaction::closes) {
            called.patch->original()(words...);
        }
        if (told.last_error != ERROR_SUCCESS) {
            SetLastError(told.last_error);
        }
        return told.result;
    }
};

call_sweep::call_sweep(HMODULE module, const std::vector<std::string_view>& only)
    : module_start_{reinterpret_cast<ULONG_PTR>(module)},
      module_size_{pe_image{module}.headers().OptionalHeader.SizeOfImage}
{
    std::string unknown;
    for (const auto& import : pe_image{module}.imports()) {
        const auto told = std::ranges::find_if(
            rules(), [&](const rule& rule) { return begins_with_one(import.name, rule.names); });
        if (import.library == "msvcrt.dll") {
            continue;
        }
        if (told == rules().end()) {
            unknown.append(" ").append(import.name);
        } else if (
            told->how != reaction::left_alone && (only.empty() || begins_with_one(import.name, only))) {
            functions_.push_back({.name = import.name, .told = &*told, .patch = nullptr});
        }
    }
    if (!unknown.empty()) {
        throw std::runtime_error{"how do these fail? No rule of call_sweep.cpp tells:" + unknown};
    }
    active_ = this;
    const auto stubs = []<std::size_t... Indexes>(std::index_sequence<Indexes...> /*all*/) {
        return std::array{&stub<Indexes, any_function>::call...};
    }(std::make_index_sequence<MOST_FUNCTIONS>{});
    for (std::size_t index = 0; index != functions_.size(); ++index) {
        functions_[index].patch = std::make_unique<import_patch<any_function>>(
            module, functions_[index].name.c_str(), stubs.at(index));
    }
}

call_sweep::~call_sweep() = default;

void call_sweep::plan(std::size_t nth, fault what)
{
    calls_.clear();
    failed_ = 0;
    nth_ = nth;
    planned_ = what;
    failing_ = nullptr;
}

bool call_sweep::fails(const function& called, ULONG_PTR first_argument)
{
    const DWORD last_error = GetLastError();
    // No wait for a thread of one's own fails.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): what comes in a register
    const bool counts =
        called.name != "WaitForSingleObject" || GetThreadId(reinterpret_cast<HANDLE>(first_argument)) == 0;
    bool failing = false;
    if (counts) {
        const std::size_t place = nth_ == 0 ? place_of_call() : 0;
        const std::scoped_lock lock{counting_};
        calls_.push_back({.function = called.name, .place = place});
        const bool reached = calls_.size() == nth_;
        if (reached && planned_ == fault::ends_process) {
            TerminateProcess(GetCurrentProcess(), KILLED);
        }
        failing_ = reached ? &called : failing_;
        failing = reached || (failing_ == &called && planned_ == fault::staying);
        failed_ += failing ? 1 : 0;
    }
    SetLastError(last_error);
    return failing;
}

std::size_t call_sweep::place_of_call() const
{
    std::array<void*, 62> way{};
    const USHORT depth = RtlCaptureStackBackTrace(0, static_cast<ULONG>(way.size()), way.data(), nullptr);
    std::size_t place = 0;
    for (void* const step : std::span{way}.first(depth)) {
        const ULONG_PTR offset = reinterpret_cast<ULONG_PTR>(step) - module_start_;
        place = offset < module_size_ ? (place * 31) + offset : place;
    }
    return place;
}

std::string sweep_calls(
    const std::vector<call_sweep::counted_call>& calls,
    double default_seconds,
    const std::function<void(std::size_t)>& take)
{
    using clock = std::chrono::steady_clock;
    using seconds = std::chrono::duration<double>;
    const char* const told = std::getenv("SWEEP");
    const bool full = told != nullptr && std::string_view{told} == "full";
    const seconds asked{told != nullptr ? std::strtod(told, nullptr) : default_seconds};
    const seconds limit = full ? std::chrono::hours{2} : asked;
    allow_test(std::chrono::duration_cast<std::chrono::milliseconds>(limit) + std::chrono::minutes{2});

    std::vector<std::size_t> at_new_places;
    std::vector<std::size_t> others;
    std::set<std::size_t> places;
    for (std::size_t nth = 1; nth <= calls.size(); ++nth) {
        (places.insert(calls[nth - 1].place).second ? at_new_places : others).push_back(nth);
    }
    std::ostringstream result;
    result << calls.size() << " calls, taken";
    const auto start = clock::now();
    const auto take_for = [&](seconds time, const std::vector<std::size_t>& numbers, const char* what) {
        const auto end = clock::now() + time;
        std::set<std::size_t> taken;
        double at = 0; // the golden ratio's multiples cover the calls evenly, wherever that ends
        while (taken.size() != numbers.size() && clock::now() < end && !testing::Test::HasFailure()) {
            const auto index = static_cast<std::size_t>((1 - at) * static_cast<double>(numbers.size() - 1));
            if (taken.insert(index).second) {
                take(numbers[index]);
            }
            at = std::fmod(at + 0.6180339887, 1.0);
        }
        result << ' ' << taken.size() << " of " << numbers.size() << what;
    };
    take_for(full ? limit : limit * 0.9, at_new_places, " at new places,");
    take_for(full ? limit : limit * 0.1, others, " others");
    result << " in " << seconds{clock::now() - start}.count() << " s";
    return result.str();
}

} // namespace test_support
