#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/version.h"
#include "custom_actions/exports.h"

#include <array>
#include <string>

namespace custom_actions {
namespace {

constexpr const wchar_t* FALLBACK_VERSION = L"0.1.16.0";

// A property as far as it fits the buffer. One that cannot be read is as good as empty.
struct version_property {
    version_property(MSIHANDLE session, const wchar_t* name) noexcept
    {
        MsiGetPropertyW(session, name, text.data(), &length);
    }

    [[nodiscard]] bool is_set() const noexcept { return length != 0 && text.front() != L'\0'; }

    std::array<wchar_t, 64> text{};
    DWORD length = static_cast<DWORD>(text.size());
};

void classify_upgrade(MSIHANDLE session)
{
    const record_handle record{MsiCreateRecord(1)};
    const auto log = [&](const std::wstring& text) {
        MsiRecordSetStringW(record.get(), 0, (L"Custom action: check_upgrade_type: " + text).c_str());
        MsiProcessMessage(session, INSTALLMESSAGE_INFO, record.get());
    };

    log(L"Starting version check...");
    const version_property offered_text{session, L"ProductVersion"};
    const version_property installed_text{session, L"INSTALLED_APP_VERSION"};
    if (installed_text.is_set()) {
        log(L"Found INSTALLED_APP_VERSION in registry.");
    } else {
        log(L"INSTALLED_APP_VERSION not found. Falling back to 0.1.16.0.");
    }

    const version installed =
        parse_version(installed_text.is_set() ? installed_text.text.data() : FALLBACK_VERSION);
    const version offered = parse_version(offered_text.text.data());
    log(L"New: " + to_text(offered) + L" Old: " + to_text(installed));

    if (is_minor_upgrade(installed, offered)) {
        log(L"Detected MINOR upgrade.");
        MsiSetPropertyW(session, L"IS_MINOR_UPGRADE", L"1");
    } else {
        log(L"Detected MAJOR/MODERATE upgrade.");
        MsiSetPropertyW(session, L"IS_MINOR_UPGRADE", nullptr);
    }
}

} // namespace
} // namespace custom_actions

UINT __stdcall check_upgrade_type(MSIHANDLE session)
{
    return custom_actions::run_harmless_action([&] { custom_actions::classify_upgrade(session); });
}

UINT __stdcall notify_restart_recommended(MSIHANDLE session)
{
    // The installer takes the type of a box in the same number.
    // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange)
    constexpr auto notice = static_cast<INSTALLMESSAGE>(INSTALLMESSAGE_USER | MB_ICONINFORMATION | MB_OK);
    custom_actions::post_record(
        session, notice, L"Quorbel has been removed.\n\nPlease restart when it is convenient for you.");
    return ERROR_SUCCESS;
}
