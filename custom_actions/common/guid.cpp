#include "custom_actions/common/guid.h"

#include "custom_actions/common/windows_error.h"

#include <objbase.h>

#include <array>
#include <stdexcept>

namespace custom_actions {

std::wstring new_guid(const char* creation_failure, const char* formatting_failure)
{
    constexpr std::size_t guid_size = 40; // 38 characters and a zero, rounded up
    GUID guid{};
    check_hresult(CoCreateGuid(&guid), creation_failure);
    std::array<wchar_t, guid_size> text{};
    if (StringFromGUID2(guid, text.data(), static_cast<int>(text.size())) == 0) {
        throw std::runtime_error{formatting_failure};
    }
    return text.data();
}

} // namespace custom_actions
