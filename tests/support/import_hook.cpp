#include "tests/support/import_hook.h"

#include "support/pe_image.h"

#include <algorithm>
#include <stdexcept>

namespace test_support {
namespace {

using any_function = word WINAPI(word, word, word, word, word, word, word, word, word, word, word, word);

constexpr std::size_t MOST_HOOKS = 224;
std::array<const import_hook*, MOST_HOOKS> hooks{}; // by the index of their stubs

word exchange(word* slot, word value) noexcept
{
    DWORD protection = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    const word previous = std::exchange(*slot, value);
    VirtualProtect(slot, sizeof *slot, protection, &protection);
    return previous;
}

} // namespace

template <std::size_t Index>
word WINAPI import_hook::stub(
    word a, word b, word c, word d, word e, word f, word g, word h, word i, word j, word k, word l)
{
    const import_hook& hook = *hooks[Index];
    const words all{a, b, c, d, e, f, g, h, i, j, k, l};
    const std::optional<word> answered = hook.answer_(hook, all);
    return answered ? *answered : hook.call(all);
}

import_hook::import_hook(HMODULE module, std::string function, answer to_calls)
    : function_{std::move(function)}, answer_{std::move(to_calls)},
      index_{static_cast<std::size_t>(std::ranges::find(hooks, nullptr) - hooks.begin())}
{
    static constexpr auto stubs = []<std::size_t... Index>(std::index_sequence<Index...> /*all*/) {
        return std::array<any_function*, MOST_HOOKS>{&stub<Index>...};
    }(std::make_index_sequence<MOST_HOOKS>{});
    const auto imports = pe_image{module}.imports();
    const auto found = std::ranges::find(imports, function_, &imported_function::name);
    if (found == imports.end()) {
        throw std::runtime_error{"the module does not import " + function_};
    }
    slot_ = found->slot;
    hooks.at(index_) = this;
    original_ = exchange(slot_, to_word(stubs.at(index_)));
}

import_hook::~import_hook()
{
    exchange(slot_, original_);
    hooks[index_] = nullptr;
}

word import_hook::call(const words& all) const
{
    return std::apply(from_word<any_function*>(original_), all);
}

import_hook::answer fail_with(word result, DWORD last_error, unsigned nth, unsigned count)
{
    return [=, call = 0U](const import_hook&, const words&) mutable -> std::optional<word> {
        if (++call < nth || call >= nth + count) {
            return std::nullopt;
        }
        SetLastError(last_error);
        return result;
    };
}

} // namespace test_support
