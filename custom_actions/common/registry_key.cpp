#include "custom_actions/common/registry_key.h"

#include <cstring>

namespace custom_actions {

REGSAM native_registry_view() noexcept
{
    BOOL under_wow64 = FALSE;
    return IsWow64Process(GetCurrentProcess(), &under_wow64) && under_wow64 ? KEY_WOW64_64KEY : 0;
}

std::optional<std::wstring> registry_value::wide_text() const
{
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
    const bool well_formed = data.size() % sizeof(wchar_t) == 0 && (text.empty() || text.back() == L'\0');
    if ((type != REG_SZ && type != REG_EXPAND_SZ) || !well_formed) {
        return std::nullopt;
    }
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

} // namespace custom_actions
