#include "custom_actions/common/version_check.h"

#include "custom_actions/common/scoped_handle.h"

#include <array>
#include <cwchar>
#include <string>

namespace custom_actions {
namespace {

constexpr const wchar_t* FALLBACK_VERSION = L"0.1.16.0";
constexpr std::size_t VERSION_SIZE = 64; // characters; a longer value is cut

// A property as far as it fits the buffer. One that cannot be read counts as empty.
struct version_property {
    version_property(MSIHANDLE session, const wchar_t* name) noexcept
    {
        MsiGetPropertyW(session, name, text.data(), &length);
    }

    [[nodiscard]] bool is_set() const noexcept { return length != 0 && text.front() != L'\0'; }

    std::array<wchar_t, VERSION_SIZE> text{};
    DWORD length = VERSION_SIZE;
};

struct version {
    int major_number = 0;
    int minor_number = 0;
    int build = 0;
    int revision = 0;
};

// Reads "%d.%d.%d.%d". Fields that the text does not supply stay 0; a text that is no version gives four
// zeros.
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

// An upgrade is minor if the major and the minor number stay the same; a step back to a lower number is not.
// Build and revision do not count.
bool is_minor_upgrade(const version& installed, const version& offered) noexcept
{
    return offered.major_number == installed.major_number && offered.minor_number == installed.minor_number;
}

} // namespace

void classify_upgrade(const action_log& log)
{
    const MSIHANDLE session = log.session();
    const record_handle record{MsiCreateRecord(1)};
    const auto line = [&](const std::wstring& text) {
        MsiRecordSetStringW(record.get(), 0, log.prefixed(text).c_str());
        MsiProcessMessage(session, INSTALLMESSAGE_INFO, record.get());
    };

    line(L"Starting version check...");
    const version_property offered_text{session, L"ProductVersion"};
    const version_property installed_text{session, L"INSTALLED_APP_VERSION"};
    if (installed_text.is_set()) {
        line(L"Found INSTALLED_APP_VERSION in registry.");
    } else {
        line(std::wstring{L"INSTALLED_APP_VERSION not found. Falling back to "} + FALLBACK_VERSION + L'.');
    }

    const version installed =
        parse_version(installed_text.is_set() ? installed_text.text.data() : FALLBACK_VERSION);
    const version offered = parse_version(offered_text.text.data());
    line(L"New: " + to_text(offered) + L" Old: " + to_text(installed));

    const bool minor = is_minor_upgrade(installed, offered);
    line(minor ? L"Detected MINOR upgrade." : L"Detected MAJOR/MODERATE upgrade.");
    MsiSetPropertyW(session, L"IS_MINOR_UPGRADE", minor ? L"1" : nullptr);
}

void show_restart_notice(MSIHANDLE session) noexcept
{
    // The installer takes the style of the box in the same number.
    // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange)
    constexpr auto notice = static_cast<INSTALLMESSAGE>(INSTALLMESSAGE_USER | MB_ICONINFORMATION | MB_OK);
    post_record(
        session, notice, L"Quorbel has been removed.\n\nPlease restart when it is convenient for you.");
}

} // namespace custom_actions
