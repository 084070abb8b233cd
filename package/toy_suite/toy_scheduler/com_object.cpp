#include "package/toy_suite/toy_scheduler/com_object.h"

#include <cwchar>
#include <exception>
#include <stdexcept>

namespace toy_scheduler {
namespace {

// Counts the objects that live in this process.
void count_object(LONG change) noexcept
{
    static LONG count = 0;
    note_object_count(static_cast<DWORD>(InterlockedAdd(&count, change)));
}

} // namespace

HRESULT STDMETHODCALLTYPE query(object* self, REFIID wanted, void** found) noexcept
{
    const bool known = IsEqualIID(wanted, IID_IUnknown) || IsEqualIID(wanted, *self->kind);
    *found = known ? self : nullptr;
    if (known) {
        add_reference(self);
    }
    return known ? S_OK : E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE add_reference(object* self) noexcept
{
    return static_cast<ULONG>(InterlockedIncrement(&self->references));
}

ULONG STDMETHODCALLTYPE release(object* self) noexcept
{
    const LONG left = InterlockedDecrement(&self->references);
    if (left == 0) {
        const std::unique_ptr<object> last{self};
        count_object(-1);
    }
    return static_cast<ULONG>(left);
}

void expect(bool fulfilled, std::wstring_view expectation)
{
    if (!fulfilled) {
        note(L"Unexpected", std::wstring{L"not "}.append(expectation));
        throw std::invalid_argument{"an unexpected call"};
    }
}

HRESULT answered(std::wstring_view name, const std::function<HRESULT()>& answer) noexcept
try {
    note(L"Calls", name);
    return must_fail(name) ? E_ACCESSDENIED : answer();
} catch (const std::exception&) {
    return E_INVALIDARG;
}

HRESULT unexpected(std::wstring_view interface_name, std::size_t method) noexcept
{
    note(L"Unexpected", std::wstring{interface_name}.append(L", method ") + std::to_wstring(method));
    return E_NOTIMPL;
}

std::wstring text_of(BSTR text)
{
    expect(text != nullptr && SysStringLen(text) == std::wcslen(text), L"a BSTR");
    return text;
}

std::wstring text_of(LONG number)
{
    return std::to_wstring(number);
}

void* make_object(void* const* methods, const IID& kind, std::shared_ptr<task> about)
{
    auto made =
        std::make_unique<object>(object{.methods = methods, .kind = &kind, .about = std::move(about)});
    count_object(1);
    return made.release();
}

} // namespace toy_scheduler
