#include "custom_actions/common/guid.h"

#include "custom_actions/common/windows_error.h"

#include <objbase.h>

#include <array>
#include <stdexcept>

namespace custom_actions {

std::wstring new_guid(const char* creation_failure, const char* formatting_failure)
{
    GUID guid{};
    if (const HRESULT created = CoCreateGuid(&guid); FAILED(created)) {
        throw windows_error{creation_failure, static_cast<DWORD>(created)};
    }
    std::array<wchar_t, 40> text{};
    if (StringFromGUID2(guid, text.data(), static_cast<int>(text.size())) == 0) {
        throw std::runtime_error{formatting_failure};
    }
    return text.data();
}

} // namespace custom_actions
