#include "benchmarks/registry_trace.h"

#include "support/import_patch.h"

#include <windows.h>

#include <algorithm>
#include <type_traits>

namespace benchmarks {
namespace {

std::vector<std::string> calls; // global: the patched functions have no context

void append(std::string& line, const char* text)
{
    line += text == nullptr ? " -" : " '" + std::string{text} + "'";
}

void append(std::string& line, DWORD number)
{
    line += ' ' + std::to_string(number);
}

void append(std::string& line, HKEY key)
{
    line += key == HKEY_LOCAL_MACHINE ? " machine" : " key";
}

// A DWORD pointer is a buffer's size, which is recorded; other pointers are buffers or receive results.
template <class T>
void append(std::string& line, T* pointer)
{
    line += pointer == nullptr ? " -" : " to";
    if constexpr (std::is_same_v<T, DWORD>) {
        line += pointer == nullptr ? "" : ' ' + std::to_string(*pointer);
    }
}

template <std::size_t Size>
struct function_name {
    char text[Size]{};

    consteval function_name(const char (&literal)[Size]) { std::ranges::copy(literal, text); }
};

// Records the calls of one imported function during its lifetime.
template <function_name Name, class Function>
class traced_function;

template <function_name Name, class Result, class... Arguments>
class traced_function<Name, Result(Arguments...)> {
public:
    traced_function() : patch_{GetModuleHandleW(nullptr), Name.text, call} { current = this; }

private:
    static Result call(Arguments... arguments)
    {
        std::string line{Name.text};
        (append(line, arguments), ...);
        const Result result = current->patch_.original()(arguments...);
        calls.push_back(line + ": " + std::to_string(result));
        return result;
    }

    static inline traced_function* current = nullptr;
    test_support::import_patch<Result(Arguments...)> patch_;
};

struct traced_functions {
    traced_function<"RegOpenKeyExA", decltype(RegOpenKeyExA)> open;
    traced_function<"RegCreateKeyExA", decltype(RegCreateKeyExA)> create;
    traced_function<"RegCloseKey", decltype(RegCloseKey)> close;
    traced_function<"RegQueryValueExA", decltype(RegQueryValueExA)> query;
    traced_function<"RegSetValueExA", decltype(RegSetValueExA)> set;
    traced_function<"RegDeleteValueA", decltype(RegDeleteValueA)> delete_value;
    traced_function<"RegDeleteKeyA", decltype(RegDeleteKeyA)> delete_key;
    traced_function<"RegEnumKeyExA", decltype(RegEnumKeyExA)> enumerate;
    traced_function<"RegQueryInfoKeyW", decltype(RegQueryInfoKeyW)> count;
    traced_function<"OpenProcessToken", decltype(OpenProcessToken)> open_token;
    traced_function<"GetTokenInformation", decltype(GetTokenInformation)> query_token;
    traced_function<"CloseHandle", decltype(CloseHandle)> close_token;
    traced_function<"IsWow64Process", decltype(IsWow64Process)> query_wow64;
};

} // namespace

std::vector<std::string> trace_registry_calls(const std::function<void()>& work)
{
    calls.clear();
    const traced_functions traced;
    work();
    return calls;
}

} // namespace benchmarks
