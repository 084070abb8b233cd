#include "package/toy_suite/powershell/state.h"

namespace toy_powershell {

bool ordered(const wchar_t* name, std::wstring_view text)
{
    const auto order = state_key{ORDERS}.text(name);
    return order && text.find(*order) != std::wstring_view::npos;
}

std::optional<std::wstring> order_argument(const wchar_t* name, std::wstring_view text)
{
    const std::wstring order = state_key{ORDERS}.text(name).value_or(L"");
    const std::size_t space = order.find(L' ');
    const std::wstring contained = space == std::wstring::npos ? L"" : order.substr(space + 1);
    const bool holds = !order.empty() && text.find(contained) != std::wstring_view::npos;
    return holds ? std::optional{order.substr(0, space)} : std::nullopt;
}

} // namespace toy_powershell
