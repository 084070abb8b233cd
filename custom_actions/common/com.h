#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <windows.h>
#include <oleauto.h>

#include <new>
#include <string>

namespace custom_actions {

inline void release_com_object(IUnknown* object) noexcept
{
    object->Release();
}

// A reference to a COM object.
template <class Interface>
using com_pointer = scoped_handle<Interface*, release_com_object>;

// A string as COM takes it.
using com_string = scoped_handle<BSTR, SysFreeString>;

// Throws std::bad_alloc.
inline com_string make_com_string(const std::wstring& text)
{
    com_string made{SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))};
    if (!made) {
        throw std::bad_alloc{};
    }
    return made;
}

// COM on this thread, until the scope ends. A thread that somebody has already set up for the other threading
// model is left as it is.
class com_apartment {
public:
    // Throws windows_error `failure`.
    explicit com_apartment(const char* failure) : result_{CoInitializeEx(nullptr, COINIT_MULTITHREADED)}
    {
        if (result_ != RPC_E_CHANGED_MODE) {
            check_hresult(result_, failure);
        }
    }

    ~com_apartment()
    {
        if (SUCCEEDED(result_)) {
            CoUninitialize();
        }
    }

    com_apartment(const com_apartment&) = delete;
    com_apartment& operator=(const com_apartment&) = delete;

private:
    HRESULT result_;
};

} // namespace custom_actions
