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

// Objects of COM with a table of functions each. The tables are filled in by hand (CINTERFACE), so that a
// place that is left empty can be given a function of its own that says who called it.
namespace toy_scheduler {

// What the objects of one task share; the service and its folder have one, too.
struct task {
    std::wstring name;
    properties values;
    custom_actions::kernel_handle program;          // that was started
    DWORD start_failure = SCHED_S_TASK_HAS_NOT_RUN; // the result where no program was started
};

class refusal : public std::exception {
public:
    explicit refusal(HRESULT code) noexcept : code_{code} {}

    [[nodiscard]] HRESULT code() const noexcept { return code_; }

private:
    HRESULT code_;
};

// Refuses a call, with a note, that the real scheduler would not take either.
void expect(bool fulfilled, std::wstring_view expectation);

// The result of a call, which is noted: E_ACCESSDENIED where it is told to fail, or what `answer` returns or
// is refused with.
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

// A text as a template argument.
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

// A method that is answered by `Function`.
template <fixed_text Name, auto Function, class... Arguments>
HRESULT STDMETHODCALLTYPE call(Arguments... arguments) noexcept
{
    return answered(Name.text, [&] { return Function(arguments...); });
}

// A method that keeps a property of the task: "ITaskSettings::put_Enabled" that of "Enabled".
template <fixed_text Name, class Interface, class Value>
HRESULT STDMETHODCALLTYPE put(Interface* self, Value value) noexcept
{
    return answered(Name.text, [&] {
        const std::wstring_view name = Name.text;
        task_of(self).values.insert_or_assign(std::wstring{name.substr(name.find(L'_') + 1)}, text_of(value));
        return S_OK;
    });
}

// Whatever the arguments are: on x64 it is the caller who clears them away.
template <fixed_text Interface, std::size_t Method>
HRESULT STDMETHODCALLTYPE unexpected_method() noexcept
{
    return unexpected(Interface.text, Method);
}

// The table with the three methods of every object, and with the empty places filled.
template <fixed_text Name, class Interface>
table_of<Interface> completed(table_of<Interface> methods)
{
    using places = std::array<void*, sizeof methods / sizeof(void*)>;
    if (methods.QueryInterface == nullptr) {
        methods.QueryInterface = query<Interface>;
    }
    methods.AddRef = add_reference<Interface>;
    methods.Release = release<Interface>;
    auto functions = std::bit_cast<places>(methods);
    [&]<std::size_t... Method>(std::index_sequence<Method...>) {
        const places others{reinterpret_cast<void*>(&unexpected_method<Name, Method>)...};
        for (std::size_t i = 0; i != functions.size(); ++i) {
            functions[i] = functions[i] == nullptr ? others[i] : functions[i];
        }
    }(std::make_index_sequence<sizeof methods / sizeof(void*)>{});
    return std::bit_cast<table_of<Interface>>(functions);
}

// A new object, with one reference, which is the caller's.
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
