#pragma once

#include "custom_actions/upgrade/context.h"

#include <windows.h>

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace test_support {

// An argument or the result of any function: none here takes more than twelve, or a floating-point one, so
// passing on twelve words passes on all of them.
using word = ULONG_PTR;
using words = std::array<word, 12>;

template <class Value>
Value from_word(word value)
{
    if constexpr (std::is_pointer_v<Value>) {
        return reinterpret_cast<Value>(value); // NOLINT(performance-no-int-to-ptr): passed as a word
    } else {
        return static_cast<Value>(value);
    }
}

template <class Value>
word to_word(Value value)
{
    if constexpr (std::is_pointer_v<Value>) {
        return reinterpret_cast<word>(value);
    } else {
        return static_cast<word>(value);
    }
}

// Intercepts the calls that a module makes to one imported function until the scope ends. Calls by other
// modules or through GetProcAddress are not affected. A function that runs while the hook is set or removed
// may use the old entry. Hooks of the same function nest.
class import_hook {
public:
    // Returns the call's result, or nothing: then the function itself is called. The words behind its last
    // argument mean nothing.
    using answer = std::function<std::optional<word>(const import_hook&, const words&)>;

    // Throws std::runtime_error if `module` does not import `function`.
    import_hook(HMODULE module, const std::string& function, answer to_calls);

    // The same with an answer that takes the function's first arguments, none or more, and returns its result
    // or an optional one: import_hook hook{module, "OpenProcess", [](DWORD access) { return HANDLE{}; }};
    // An answer that returns nothing stands for TRUE.
    template <class Answer>
        requires(!std::is_convertible_v<Answer, answer>)
    import_hook(HMODULE module, const std::string& function, Answer to_calls)
        : import_hook{module, function, of_words(std::function{std::move(to_calls)})}
    {
    }

    ~import_hook();

    import_hook(const import_hook&) = delete;
    import_hook& operator=(const import_hook&) = delete;

    // Calls the function itself.
    [[nodiscard]] word call(const words& arguments) const;

private:
    template <class Result, class... Arguments>
    static answer of_words(std::function<Result(Arguments...)> to_calls)
    {
        return [to_calls](const import_hook&, [[maybe_unused]] const words& all) {
            return [&]<std::size_t... Index>(std::index_sequence<Index...> /*all*/) -> std::optional<word> {
                if constexpr (std::is_void_v<Result>) {
                    to_calls(from_word<Arguments>(all[Index])...);
                    return TRUE;
                } else {
                    const std::optional result{to_calls(from_word<Arguments>(all[Index])...)};
                    return result ? std::optional{to_word(*result)} : std::nullopt;
                }
            }(std::index_sequence_for<Arguments...>{});
        };
    }

    std::size_t index_; // of its stub
    word* slot_;        // in the import table
    word original_;
};

// For a hook: fails the first `times` calls. They only set the last error and return `result`.
inline auto fail_with(word result, DWORD last_error, unsigned times = 1)
{
    return [=]() mutable -> std::optional<word> {
        if (times == 0) {
            return std::nullopt;
        }
        --times;
        SetLastError(last_error);
        return result;
    };
}

// What `call` throws: "message (code)" for a windows_error, the message of any other exception, "" for none.
// Fails the test if the call leaves a handle open or the thread impersonating.
std::string thrown_by(const std::function<void()>& call);

// The same while this program's calls to `function` are answered so: thrown_with("OpenProcess", fail_with(0,
// 5), call).
template <class Answer>
std::string thrown_with(const char* function, Answer answer, const std::function<void()>& call)
{
    const import_hook hook{GetModuleHandleW(nullptr), function, std::move(answer)};
    return thrown_by(call);
}

bool thread_is_impersonating();

// An upgrade of this process's user and session, without its folders.
custom_actions::controlled_upgrade::context own_context();

// The number of handles that this process has open.
DWORD open_handles();

} // namespace test_support
