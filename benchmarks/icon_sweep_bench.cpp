// The sweep for the icon handler through a user's ProgIds, against an enumeration with the same opens and
// reads.

#include "benchmarks/benchmarks.h"
#include "custom_actions/shell_registration/icon_handler.h"
#include "support/registry_sandbox.h"

#include <array>
#include <cwchar>
#include <stdexcept>

namespace benchmarks {
namespace {

constexpr const wchar_t* CLASSES = LR"(Software\Classes)";

int bare_sweep()
{
    HKEY root = nullptr;
    require(RegOpenKeyExW(HKEY_CURRENT_USER, CLASSES, 0, KEY_READ, &root), "RegOpenKeyExW");
    int read = 0;
    std::array<wchar_t, 256> name{};
    std::array<wchar_t, 1024> path{};
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(name.size());
        if (RegEnumKeyExW(root, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            break;
        }
        std::wcscpy(path.data(), CLASSES);
        std::wcscat(path.data(), L"\\");
        std::wcscat(path.data(), name.data());
        std::wcscat(path.data(), LR"(\ShellEx\IconHandler)");
        HKEY slot = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, path.data(), 0, KEY_READ | KEY_WRITE, &slot) == ERROR_SUCCESS) {
            std::array<BYTE, 2048> data{};
            auto size = static_cast<DWORD>(data.size());
            DWORD type = 0;
            RegQueryValueExW(slot, L"", nullptr, &type, data.data(), &size);
            RegCloseKey(slot);
            ++read;
        }
    }
    RegCloseKey(root);
    return read;
}

} // namespace

// The handlers are somebody else's: the sweep looks and leaves them, so that it can be run again.
void plant_progids(int count)
{
    for (int i = 0; i != count; ++i) {
        const std::wstring progid = std::wstring{CLASSES} + LR"(\some.program.)" + std::to_wstring(i);
        if (i % 10 == 0) {
            test_support::plant_value(
                HKEY_CURRENT_USER,
                progid + LR"(\ShellEx\IconHandler)",
                L"",
                test_support::registry_text(L"{11111111-2222-3333-4444-555555555555}"));
        } else {
            test_support::plant_value(
                HKEY_CURRENT_USER, progid, L"", test_support::registry_text(L"a program"));
        }
    }
}

void measure_icon_sweep(report& results)
{
    for (const int count : {1'000, 20'000}) {
        const test_support::registry_sandbox user{HKEY_CURRENT_USER};
        plant_progids(count);
        const auto before = test_support::dump_registry(HKEY_CURRENT_USER);
        const auto times = median_times(
            {[] {
                 return std::vector{
                     milliseconds([] { custom_actions::sweep_handler_slot(CLASSES, L"IconHandler"); })};
             },
             [count] {
                 return std::vector{milliseconds([count] {
                     if (bare_sweep() != count / 10) {
                         throw std::runtime_error{"the bare sweep missed a handler"};
                     }
                 })};
             }});
        if (test_support::dump_registry(HKEY_CURRENT_USER) != before) {
            throw std::runtime_error{"the sweep changed somebody else's handler"};
        }
        results.against_floor(
            "icon handler: sweep over " + std::to_string(count) + " ProgIds", times[0][0], times[1][0], 1.15);
    }
}

} // namespace benchmarks
