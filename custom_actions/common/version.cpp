#include "custom_actions/common/version.h"

#include <cwchar>

namespace custom_actions {

version parse_version(const wchar_t* text) noexcept
{
    version parsed;
    // Fields that cannot be read stay 0, so the count of those that could adds nothing.
    // NOLINTNEXTLINE(cert-err33-c,cert-err34-c)
    std::swscanf(
        text, L"%d.%d.%d.%d", &parsed.major_number, &parsed.minor_number, &parsed.build, &parsed.revision);
    return parsed;
}

std::wstring to_text(const version& value)
{
    return std::to_wstring(value.major_number) + L'.' + std::to_wstring(value.minor_number) + L'.' +
           std::to_wstring(value.build) + L'.' + std::to_wstring(value.revision);
}

bool is_minor_upgrade(const version& installed, const version& offered) noexcept
{
    return offered.major_number == installed.major_number && offered.minor_number == installed.minor_number;
}

} // namespace custom_actions
