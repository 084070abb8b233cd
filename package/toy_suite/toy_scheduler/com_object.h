#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "package/toy_suite/toy_scheduler/state.h"

#include <windows.h>
#include <taskschd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

// COM objects whose vtables are filled in by hand (CINTERFACE), so that each slot left empty gets a function
// that records the unexpected call.
namespace toy_scheduler {

// What all objects about one task share. The service and its folder share one, too.
struct task {
    properties values;
    custom_actions::kernel_handle program; // the started one
};

// Every object, whatever its interface: as COM requires, the pointer to its methods comes first.
struct object {
    void* const* methods;
    const IID* kind;
    std::shared_ptr<task> about;
    LONG references = 1;
};

template <class Interface>
object& object_of(Interface* self) noexcept
{
    return *reinterpret_cast<object*>(self);
}

// IUnknown's methods.
HRESULT STDMETHODCALLTYPE query(object* self, REFIID wanted, void** found) noexcept;
ULONG STDMETHODCALLTYPE add_reference(object* self) noexcept;
ULONG STDMETHODCALLTYPE release(object* self) noexcept;

// If not fulfilled, notes the expectation and throws std::invalid_argument: the real scheduler would reject
// the call, too.
void expect(bool fulfilled, std::wstring_view expectation);

// Notes the call. Returns E_ACCESSDENIED if the call is set to fail, E_INVALIDARG if `answer` throws,
// otherwise what it returns.
HRESULT answered(std::wstring_view name, const std::function<HRESULT()>& answer) noexcept;

HRESULT unexpected(std::wstring_view interface_name, std::size_t method) noexcept;

std::wstring text_of(BSTR text);
std::wstring text_of(LONG number);

// A string literal as a template argument.
template <std::size_t Size>
struct fixed_text {
    wchar_t text[Size]{};

    consteval fixed_text(const wchar_t (&characters)[Size]) { std::ranges::copy(characters, text); }
};

// A method implemented by `Function`.
template <fixed_text Name, auto Function, class... Arguments>
HRESULT STDMETHODCALLTYPE call(Arguments... arguments) noexcept
{
    return answered(Name.text, [&] { return Function(arguments...); });
}

// A method that sets a property of the task: "ITaskSettings::put_Enabled" sets "Enabled".
template <fixed_text Name, class Interface, class Value>
HRESULT STDMETHODCALLTYPE put(Interface* self, Value value) noexcept
{
    return answered(Name.text, [&] {
        const std::wstring_view name = Name.text;
        object_of(self).about->values[std::wstring{name.substr(name.find(L'_') + 1)}] = text_of(value);
        return S_OK;
    });
}

// Fits any slot: on x64 the caller removes the arguments.
template <fixed_text Interface, std::size_t Method>
HRESULT STDMETHODCALLTYPE unexpected_method() noexcept
{
    return unexpected(Interface.text, Method);
}

// A new object; the caller owns its one reference.
void* make_object(void* const* methods, const IID& kind, std::shared_ptr<task> about);

template <class Interface>
using table_of = std::remove_cvref_t<decltype(*Interface::lpVtbl)>;

// A new object with the methods that `implement` sets, IUnknown's, and unexpected_method for the rest. The
// caller owns its one reference.
template <fixed_text Name, const IID& Kind, class Interface>
Interface* make(void (*implement)(table_of<Interface>&), std::shared_ptr<task> about)
{
    using slots = std::array<void*, sizeof(table_of<Interface>) / sizeof(void*)>;
    static const slots methods = [&] {
        table_of<Interface> implemented{};
        implement(implemented);
        auto all = std::bit_cast<slots>(implemented);
        const auto complete = [&](std::size_t slot, void* method) {
            all[slot] = all[slot] == nullptr ? method : all[slot];
        };
        complete(0, reinterpret_cast<void*>(&query));
        complete(1, reinterpret_cast<void*>(&add_reference));
        complete(2, reinterpret_cast<void*>(&release));
        [&]<std::size_t... Slot>(std::index_sequence<Slot...>) {
            (complete(Slot, reinterpret_cast<void*>(&unexpected_method<Name, Slot>)), ...);
        }(std::make_index_sequence<all.size()>{});
        return all;
    }();
    return static_cast<Interface*>(make_object(methods.data(), Kind, std::move(about)));
}

// The class factory of the service object. The caller owns its one reference.
IClassFactory* make_factory();

} // namespace toy_scheduler
