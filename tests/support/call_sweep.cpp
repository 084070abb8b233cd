#include "tests/support/call_sweep.h"

#include "tests/support/pe_image.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <system_error>

namespace test_support {
namespace {

enum class reaction {
    passes, // cannot fail, or must not: it is counted and goes on
    fails,  // does nothing and returns a failure
    closes  // is done, so that nothing looks leaked that is not, and returns a failure
};

struct behaviour {
    reaction how = reaction::passes;
    ULONG_PTR result = 0;
    DWORD last_error = ERROR_SUCCESS;
};

struct row {
    behaviour functions_do;
    std::vector<std::string_view> functions;
};

constexpr behaviour PASSES{};
// FALSE, no handle, no characters.
constexpr behaviour FAILS_WITH_0{reaction::fails, 0, ERROR_ACCESS_DENIED};
// INVALID_HANDLE_VALUE, WAIT_FAILED, INVALID_FILE_ATTRIBUTES, INSTALLSTATE_UNKNOWN, -1.
constexpr behaviour FAILS_WITH_ALL_BITS{reaction::fails, ~ULONG_PTR{0}, ERROR_ACCESS_DENIED};
// The functions that return an LSTATUS or an installer code.
constexpr behaviour FAILS_WITH_STATUS{reaction::fails, ERROR_ACCESS_DENIED, ERROR_SUCCESS};
constexpr behaviour FAILS_WITH_HRESULT{reaction::fails, 0x80070005, ERROR_SUCCESS};
constexpr behaviour CLOSES_AND_RETURNS_FALSE{reaction::closes, FALSE, ERROR_INVALID_HANDLE};
constexpr behaviour CLOSES_AND_RETURNS_STATUS{reaction::closes, ERROR_INVALID_HANDLE, ERROR_SUCCESS};

const std::vector<row>& table()
{
    static const std::vector<row> rows{
        {PASSES,
         {"CoUninitialize",
          "DestroyEnvironmentBlock",
          "GetTickCount64",
          "LocalFree",
          "SHChangeNotify",
          "SetThreadToken", // whoever cannot put an identity back ends the process
          "Sleep",
          "SysFreeString"}},
        {CLOSES_AND_RETURNS_FALSE, {"CloseHandle", "CloseServiceHandle"}},
        {CLOSES_AND_RETURNS_STATUS, {"MsiCloseHandle", "RegCloseKey"}},
        {FAILS_WITH_ALL_BITS,
         {"CreateFileW",
          "CreateToolhelp32Snapshot",
          "GetFileAttributesW",
          "MsiGetComponentPathExW",
          "MsiProcessMessage",
          "WaitForSingleObject"}},
        {FAILS_WITH_HRESULT, {"AssocQueryStringW", "CoCreateGuid", "CoCreateInstance", "CoInitializeEx"}},
        {FAILS_WITH_STATUS,
         {"MsiGetPropertyW",  "MsiRecordSetStringW", "MsiSetPropertyW",  "MsiSetTargetPathW",
          "RegCreateKeyExA",  "RegCreateKeyExW",     "RegDeleteKeyA",    "RegDeleteKeyExW",
          "RegDeleteValueA",  "RegDeleteValueW",     "RegEnumKeyExA",    "RegEnumKeyExW",
          "RegEnumValueW",    "RegGetValueW",        "RegOpenKeyExA",    "RegOpenKeyExW",
          "RegQueryInfoKeyW", "RegQueryValueExA",    "RegQueryValueExW", "RegSetValueExA",
          "RegSetValueExW"}},
        {FAILS_WITH_0,
         {"AdjustTokenPrivileges",
          "ChangeServiceConfig2W",
          "ChangeServiceConfigW",
          "ControlService",
          "ConvertSidToStringSidW",
          "ConvertStringSecurityDescriptorToSecurityDescriptorW",
          "ConvertStringSidToSidW",
          "CopyFileW",
          "CreateDirectoryW",
          "CreateEnvironmentBlock",
          "CreatePipe",
          "CreateProcessAsUserW",
          "CreateProcessW",
          "CreateThread",
          "CryptBinaryToStringW",
          "EnumWindows",
          "FindWindowExW",
          "GetClassNameW",
          "GetExitCodeProcess",
          "GetProcessTimes",
          "GetShellWindow",
          "GetSystemDirectoryW",
          "GetTokenInformation",
          "GetWindowThreadProcessId",
          "GetWindowsDirectoryW",
          "ImpersonateLoggedOnUser",
          "IsWow64Process",
          "K32EnumProcessModulesEx",
          "K32GetModuleFileNameExW",
          "LookupPrivilegeValueW",
          "Module32FirstW",
          "Module32NextW",
          "MsiCreateRecord",
          "MultiByteToWideChar",
          "OpenProcess",
          "OpenProcessToken",
          "OpenSCManagerW",
          "OpenServiceW",
          "OpenThreadToken",
          "PostMessageW",
          "PostThreadMessageW",
          "Process32FirstW",
          "Process32NextW",
          "ProcessIdToSessionId",
          "QueryFullProcessImageNameW",
          "QueryServiceConfig2W",
          "QueryServiceConfigW",
          "QueryServiceStatusEx",
          "ReadFile",
          "SetHandleInformation",
          "StartServiceW",
          "StringFromGUID2",
          "SysAllocStringLen",
          "TerminateProcess",
          "Thread32First",
          "Thread32Next",
          "WTSQueryUserToken",
          "WriteFile"}},
    };
    return rows;
}

// Calls that do not say what an action does: the C and C++ runtimes' own (their locks, threads, exceptions,
// code pages, random numbers and start), and those that only tell what the process knows anyway.
bool is_not_counted(const imported_function& import)
{
    static const std::set<std::string_view> functions{
        "AddVectoredExceptionHandler",
        "CompareStringOrdinal",
        "CreateEventA",
        "CreateSemaphoreA",
        "CryptAcquireContextA",
        "CryptGenRandom",
        "CryptReleaseContext",
        "DeleteCriticalSection",
        "DuplicateHandle",
        "EnterCriticalSection",
        "FormatMessageA",
        "GetCurrentProcess",
        "GetCurrentProcessId",
        "GetCurrentThread",
        "GetCurrentThreadId",
        "GetHandleInformation",
        "GetLastError",
        "GetModuleHandleA",
        "GetModuleHandleW",
        "GetProcAddress",
        "GetProcessAffinityMask",
        "GetSystemTimeAsFileTime",
        "GetThreadContext",
        "GetThreadPriority",
        "GetTickCount",
        "InitializeCriticalSection",
        "IsDBCSLeadByteEx",
        "IsDebuggerPresent",
        "LeaveCriticalSection",
        "LoadLibraryW",
        "OutputDebugStringA",
        "QueryPerformanceCounter",
        "QueryPerformanceFrequency",
        "RaiseException",
        "ReleaseSemaphore",
        "RemoveVectoredExceptionHandler",
        "ResetEvent",
        "ResumeThread",
        "RtlCaptureContext",
        "RtlLookupFunctionEntry",
        "RtlUnwindEx",
        "RtlVirtualUnwind",
        "SetEvent",
        "SetLastError",
        "SetProcessAffinityMask",
        "SetThreadContext",
        "SetThreadPriority",
        "SuspendThread",
        "TlsAlloc",
        "TlsGetValue",
        "TlsSetValue",
        "TryEnterCriticalSection",
        "VirtualProtect",
        "VirtualQuery",
        "WaitForMultipleObjects",
        "WideCharToMultiByte",
        "__C_specific_handler",
    };
    return import.library == "msvcrt.dll" || functions.contains(import.name);
}

std::optional<behaviour> behaviour_of(std::string_view function)
{
    for (const row& row : table()) {
        if (std::ranges::find(row.functions, function) != row.functions.end()) {
            return row.functions_do;
        }
    }
    return std::nullopt;
}

// The code of a stub. It keeps the registers that arguments come in, asks on_call and then either goes on to
// the function, with everything as the caller left it, or returns to the caller.
constexpr auto PROLOGUE = std::to_array<unsigned char>({
    0x51, // push rcx
    0x52, // push rdx
    0x41,
    0x50, // push r8
    0x41,
    0x51, // push r9
    0x48,
    0x83,
    0xEC,
    0x68, // sub rsp, 0x68
});
constexpr auto SAVE_AND_ASK = std::to_array<unsigned char>({
    0x0F, 0x11, 0x44, 0x24, 0x20, // movups [rsp+0x20], xmm0
    0x0F, 0x11, 0x4C, 0x24, 0x30, // movups [rsp+0x30], xmm1
    0x0F, 0x11, 0x54, 0x24, 0x40, // movups [rsp+0x40], xmm2
    0x0F, 0x11, 0x5C, 0x24, 0x50, // movups [rsp+0x50], xmm3
    0x48, 0x89, 0xCA,             // mov rdx, rcx
    0x48, 0xB9,                   // mov rcx, (the stub)
});
constexpr auto LOAD_RAX = std::to_array<unsigned char>({0x48, 0xB8}); // mov rax, (8 bytes)
constexpr auto ASK_AND_RESTORE = std::to_array<unsigned char>({
    0xFF, 0xD0,                   // call rax
    0x0F, 0x10, 0x44, 0x24, 0x20, // movups xmm0, [rsp+0x20]
    0x0F, 0x10, 0x4C, 0x24, 0x30, // movups xmm1, [rsp+0x30]
    0x0F, 0x10, 0x54, 0x24, 0x40, // movups xmm2, [rsp+0x40]
    0x0F, 0x10, 0x5C, 0x24, 0x50, // movups xmm3, [rsp+0x50]
    0x48, 0x83, 0xC4, 0x68,       // add rsp, 0x68
    0x41, 0x59,                   // pop r9
    0x41, 0x58,                   // pop r8
    0x5A,                         // pop rdx
    0x59,                         // pop rcx
    0x48, 0x85, 0xC0,             // test rax, rax
    0x75, 0x0C,                   // jnz over the 12 bytes that go on
});
constexpr auto GO_ON = std::to_array<unsigned char>({0xFF, 0xE0});              // jmp rax
constexpr auto RETURN = std::to_array<unsigned char>({0x48, 0x8B, 0x00, 0xC3}); // mov rax, [rax]; ret

// How the system finds its way back from a stub, for exceptions and for the way that a call has come: the
// prologue's operations, the last one first.
constexpr auto UNWIND_INFORMATION = std::to_array<unsigned char>({
    1,
    PROLOGUE.size(),
    5,
    0, // version 1, the prologue's size, 5 operations, no frame register
    10,
    0xC2, // 0x68 bytes of stack
    6,
    0x90, // r9
    4,
    0x80, // r8
    2,
    0x20, // rdx
    1,
    0x10, // rcx
    0,
    0, // to a whole number of pairs
});

constexpr std::size_t STUB_SIZE = 128;

class code_writer {
public:
    explicit code_writer(std::byte* at) noexcept : at_{at} {}

    void bytes(std::span<const unsigned char> code) noexcept
    {
        std::memcpy(at_, code.data(), code.size());
        at_ += code.size();
    }

    void value(ULONG_PTR number) noexcept
    {
        std::memcpy(at_, &number, sizeof number);
        at_ += sizeof number;
    }

private:
    std::byte* at_;
};

[[noreturn]] void throw_last_error(const char* what)
{
    throw std::system_error{static_cast<int>(GetLastError()), std::system_category(), what};
}

} // namespace

struct call_sweep::stub {
    call_sweep* sweep;
    std::string function;
    behaviour does;
    ULONG_PTR original;
};

call_sweep::executable_memory::executable_memory(std::size_t bytes)
    : start{static_cast<std::byte*>(VirtualAlloc(nullptr, bytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE))},
      size{bytes}
{
    if (start == nullptr) {
        throw_last_error("no memory for the stubs");
    }
}

call_sweep::executable_memory::~executable_memory()
{
    RtlDeleteFunctionTable(reinterpret_cast<RUNTIME_FUNCTION*>(start));
    VirtualFree(start, 0, MEM_RELEASE);
}

call_sweep::call_sweep(HMODULE module)
    : module_start_{reinterpret_cast<ULONG_PTR>(module)},
      module_end_{module_start_ + pe_image{module}.headers().OptionalHeader.SizeOfImage}
{
    std::string unknown;
    for (const auto& import : pe_image{module}.imports()) {
        if (is_not_counted(import)) {
            continue;
        }
        if (const auto does = behaviour_of(import.name)) {
            stubs_.push_back(
                {.sweep = this, .function = import.name, .does = *does, .original = *import.slot});
        } else {
            unknown.append(" ").append(import.name);
        }
    }
    if (!unknown.empty()) {
        throw std::runtime_error{"how do these fail? The table of call_sweep.cpp does not tell:" + unknown};
    }
    write_code();
    const std::size_t stubs_start = code_->size - (stubs_.size() * STUB_SIZE);
    for (std::size_t index = 0; index != stubs_.size(); ++index) {
        patches_.push_back(std::make_unique<untyped_import_patch>(
            module,
            stubs_[index].function.c_str(),
            reinterpret_cast<ULONG_PTR>(code_->start + stubs_start + (index * STUB_SIZE))));
    }
}

call_sweep::~call_sweep() = default;

// The function table, what it tells of every stub, and the stubs.
void call_sweep::write_code()
{
    const std::size_t table_size = stubs_.size() * sizeof(RUNTIME_FUNCTION);
    const std::size_t stubs_start = (table_size + UNWIND_INFORMATION.size() + 15) / 16 * 16;
    code_ = std::make_unique<executable_memory>(stubs_start + (stubs_.size() * STUB_SIZE));
    auto* const functions = reinterpret_cast<RUNTIME_FUNCTION*>(code_->start);
    code_writer{code_->start + table_size}.bytes(UNWIND_INFORMATION);
    for (std::size_t index = 0; index != stubs_.size(); ++index) {
        const auto offset = static_cast<DWORD>(stubs_start + (index * STUB_SIZE));
        functions[index].BeginAddress = offset;
        functions[index].EndAddress = offset + STUB_SIZE;
        functions[index].UnwindData = static_cast<DWORD>(table_size);
        code_writer code{code_->start + offset};
        code.bytes(PROLOGUE);
        code.bytes(SAVE_AND_ASK);
        code.value(reinterpret_cast<ULONG_PTR>(&stubs_[index]));
        code.bytes(LOAD_RAX);
        code.value(reinterpret_cast<ULONG_PTR>(&on_call));
        code.bytes(ASK_AND_RESTORE);
        code.bytes(LOAD_RAX);
        code.value(stubs_[index].original);
        code.bytes(GO_ON);
        code.bytes(RETURN);
    }
    DWORD before = 0;
    if (!VirtualProtect(code_->start, code_->size, PAGE_EXECUTE_READ, &before) ||
        !RtlAddFunctionTable(
            functions, static_cast<DWORD>(stubs_.size()), reinterpret_cast<DWORD64>(code_->start))) {
        throw_last_error("the stubs cannot be made code");
    }
    FlushInstructionCache(GetCurrentProcess(), code_->start, code_->size);
}

void call_sweep::start_over() noexcept
{
    calls_.clear();
    failed_ = 0;
    nth_ = 0;
    ends_process_at_.clear();
    calls_of_it_ = 0;
    failing_ = {};
}

void call_sweep::let_pass()
{
    const std::scoped_lock lock{counting_};
    start_over();
}

void call_sweep::fail_at(std::size_t nth, lasting how)
{
    const std::scoped_lock lock{counting_};
    start_over();
    nth_ = nth;
    how_ = how;
}

void call_sweep::end_process_at(std::string_view function, std::size_t nth, UINT exit_code)
{
    const std::scoped_lock lock{counting_};
    start_over();
    nth_ = nth;
    ends_process_at_ = function;
    exit_code_ = exit_code;
}

const ULONG_PTR* call_sweep::on_call(const stub* called, ULONG_PTR first_argument) noexcept
{
    const DWORD last_error = GetLastError();
    call_sweep& sweep = *called->sweep;
    std::array<void*, 62> way{};
    const USHORT depth = RtlCaptureStackBackTrace(0, static_cast<ULONG>(way.size()), way.data(), nullptr);
    std::size_t place = std::hash<std::string_view>{}(called->function);
    for (void* const step : std::span{way}.first(depth)) {
        const auto address = reinterpret_cast<ULONG_PTR>(step);
        if (address >= sweep.module_start_ && address < sweep.module_end_) {
            place = (place * 31) + (address - sweep.module_start_);
        }
    }
    const ULONG_PTR* const result = sweep.count(*called, first_argument, place);
    SetLastError(
        result != nullptr && called->does.last_error != ERROR_SUCCESS ? called->does.last_error : last_error);
    return result;
}

const ULONG_PTR* call_sweep::count(const stub& called, ULONG_PTR first_argument, std::size_t place)
{
    // No wait for a thread of one's own fails.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): what comes in a register
    if (called.function == "WaitForSingleObject" &&
        GetThreadId(reinterpret_cast<HANDLE>(first_argument)) != 0) {
        return nullptr;
    }
    const std::scoped_lock lock{counting_};
    const bool can_fail = called.does.how != reaction::passes;
    calls_.push_back({.function = called.function, .place = place, .can_fail = can_fail});
    if (!ends_process_at_.empty()) {
        if (called.function == ends_process_at_ && ++calls_of_it_ == nth_) {
            TerminateProcess(GetCurrentProcess(), exit_code_);
        }
        return nullptr;
    }
    if (calls_.size() == nth_) {
        failing_ = called.function;
    }
    const bool reached = calls_.size() == nth_ || (how_ == lasting::staying && failing_ == called.function);
    if (!can_fail || !reached) {
        return nullptr;
    }
    ++failed_;
    if (called.does.how == reaction::closes) {
        // Every one of them takes the handle, and only that, in the first register.
        reinterpret_cast<ULONG_PTR(WINAPI*)(ULONG_PTR)>(called.original)(first_argument);
    }
    return &called.does.result;
}

} // namespace test_support
