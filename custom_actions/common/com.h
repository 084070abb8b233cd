#pragma once

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"

#include <windows.h>
#include <oleauto.h>

#include <new>
#include <string>

namespace custom_actions {

// Throws windows_error `message` with the code where a COM call has failed.
inline void require(HRESULT result, const char* message)
{
    if (FAILED(result)) {
        throw windows_error{message, static_cast<DWORD>(result)};
    }
}

// A reference to a COM object.
template <class Interface>
struct com_traits {
    using handle_type = Interface*;

    static bool is_open(handle_type object) noexcept { return object != nullptr; }

    static void close(handle_type object) noexcept { object->Release(); }
};

template <class Interface>
using com_pointer = scoped_handle<com_traits<Interface>>;

// A string as COM takes it.
struct com_string_traits {
    using handle_type = BSTR;

    static bool is_open(const wchar_t* text) noexcept { return text != nullptr; }

    static void close(handle_type text) noexcept { SysFreeString(text); }
};

using com_string = scoped_handle<com_string_traits>;

// Throws std::bad_alloc.
inline com_string make_com_string(const std::wstring& text)
{
    com_string made{SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))};
    if (!made) {
        throw std::bad_alloc{};
    }
    return made;
}

// COM on this thread. A thread that somebody has already set up for the other model is left as it is.
class com_apartment {
public:
    // Throws windows_error `failure`.
    explicit com_apartment(const char* failure)
    {
        const HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        initialized_ = SUCCEEDED(result);
        if (!initialized_ && result != RPC_E_CHANGED_MODE) {
            throw windows_error{failure, static_cast<DWORD>(result)};
        }
    }

    ~com_apartment()
    {
        if (initialized_) {
            CoUninitialize();
        }
    }

    com_apartment(const com_apartment&) = delete;
    com_apartment& operator=(const com_apartment&) = delete;

private:
    bool initialized_ = false;
};

} // namespace custom_actions
