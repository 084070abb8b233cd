#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "package/toy_suite/toy_scheduler/state.h"

#include <windows.h>
#include <taskschd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

// COM objects whose vtables are filled in by hand (CINTERFACE), so that each slot left empty gets a function
// that records the unexpected call.
namespace toy_scheduler {

// What all objects about one task share. The service and its folder share one, too.
struct task {
    std::wstring name;
    properties values;
    custom_actions::kernel_handle program;          // the started one
    DWORD start_failure = SCHED_S_TASK_HAS_NOT_RUN; // the result if no program was started
};

class refusal : public std::exception {
public:
    explicit refusal(HRESULT code) noexcept : code_{code} {}

    [[nodiscard]] HRESULT code() const noexcept { return code_; }

private:
    HRESULT code_;
};

// If not fulfilled, notes the expectation and throws refusal: the real scheduler would reject the call, too.
void expect(bool fulfilled, std::wstring_view expectation);

// Notes the call. Returns E_ACCESSDENIED if the call is set to fail; otherwise what `answer` returns, or the
// code of the refusal that it throws.
HRESULT answered(std::wstring_view name, const std::function<HRESULT()>& answer) noexcept;

HRESULT unexpected(std::wstring_view interface_name, std::size_t method) noexcept;

// Counts the objects that live in this process.
void count_object(LONG change) noexcept;

bool objects_live() noexcept;

std::wstring text_of(BSTR text);

template <class Number>
    requires std::is_integral_v<Number> || std::is_enum_v<Number>
std::wstring text_of(Number number)
{
    return std::to_wstring(static_cast<long>(number));
}

// A string literal as a template argument.
template <std::size_t Size>
struct fixed_text {
    wchar_t text[Size]{};

    consteval fixed_text(const wchar_t (&characters)[Size]) { std::ranges::copy(characters, text); }
};

template <class Interface>
struct object : Interface {
    const IID* kind = nullptr;
    std::shared_ptr<task> about;
    LONG references = 1;
};

template <class Interface>
using table_of = std::remove_cvref_t<decltype(*Interface::lpVtbl)>;

template <class Interface>
object<Interface>& object_of(Interface* self) noexcept
{
    return *static_cast<object<Interface>*>(self);
}

template <class Interface>
task& task_of(Interface* self) noexcept
{
    return *object_of(self).about;
}

template <class Interface>
ULONG STDMETHODCALLTYPE add_reference(Interface* self) noexcept
{
    return static_cast<ULONG>(InterlockedIncrement(&object_of(self).references));
}

template <class Interface>
ULONG STDMETHODCALLTYPE release(Interface* self) noexcept
{
    const LONG left = InterlockedDecrement(&object_of(self).references);
    if (left == 0) {
        const std::unique_ptr<object<Interface>> last{&object_of(self)};
        count_object(-1);
    }
    return static_cast<ULONG>(left);
}

template <class Interface>
HRESULT STDMETHODCALLTYPE query(Interface* self, REFIID wanted, void** found) noexcept
{
    const bool known = IsEqualIID(wanted, IID_IUnknown) || IsEqualIID(wanted, *object_of(self).kind);
    *found = known ? self : nullptr;
    if (known) {
        add_reference(self);
    }
    return known ? S_OK : E_NOINTERFACE;
}

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
        task_of(self).values.insert_or_assign(std::wstring{name.substr(name.find(L'_') + 1)}, text_of(value));
        return S_OK;
    });
}

// Fits any slot: on x64 the caller removes the arguments.
template <fixed_text Interface, std::size_t Method>
HRESULT STDMETHODCALLTYPE unexpected_method() noexcept
{
    return unexpected(Interface.text, Method);
}

// Adds IUnknown's methods to the table, and unexpected_method to every slot left empty.
template <fixed_text Name, class Interface>
table_of<Interface> completed(table_of<Interface> methods)
{
    using slots = std::array<void*, sizeof methods / sizeof(void*)>;
    if (methods.QueryInterface == nullptr) {
        methods.QueryInterface = query<Interface>;
    }
    methods.AddRef = add_reference<Interface>;
    methods.Release = release<Interface>;
    auto functions = std::bit_cast<slots>(methods);
    [&]<std::size_t... Method>(std::index_sequence<Method...>) {
        const slots others{reinterpret_cast<void*>(&unexpected_method<Name, Method>)...};
        for (std::size_t i = 0; i != functions.size(); ++i) {
            functions[i] = functions[i] == nullptr ? others[i] : functions[i];
        }
    }(std::make_index_sequence<sizeof methods / sizeof(void*)>{});
    return std::bit_cast<table_of<Interface>>(functions);
}

// A new object; the caller owns its one reference.
template <class Interface>
Interface* make(table_of<Interface>& methods, const IID& kind, std::shared_ptr<task> about)
{
    auto made = std::make_unique<object<Interface>>();
    made->lpVtbl = &methods;
    made->kind = &kind;
    made->about = std::move(about);
    count_object(1);
    return made.release();
}

} // namespace toy_scheduler
