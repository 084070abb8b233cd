#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/exports.h"
#include "custom_actions/packages/hidden_process.h"
#include "custom_actions/packages/msix_package.h"

#include <optional>
#include <string>

namespace custom_actions {
namespace {

// Writes the lines of one of the two actions, errors as errors.
class package_log {
public:
    package_log(MSIHANDLE session, const std::wstring& action)
        : session_{session}, prefix_{L"Custom action: " + action + L": "}
    {
    }

    void line(const std::wstring& text) const { msi_log(session_, prefix_ + text); }

    void error(const std::wstring& text) const
    {
        msi_message(session_, INSTALLMESSAGE_ERROR, prefix_ + text);
    }

private:
    MSIHANDLE session_;
    std::wstring prefix_;
};

// CustomActionData; nothing, and an error, where it cannot be read, is empty or has 260 characters or more.
std::optional<std::wstring> read_data(MSIHANDLE session, const package_log& log)
{
    std::wstring data;
    try {
        data = read_short_property<260>(session, L"CustomActionData", "Cannot read package data");
    } catch (const windows_error&) { // NOLINT(bugprone-empty-catch): as good as no data
    }
    if (data.empty()) {
        log.error(L"Failed to get custom action data");
        return std::nullopt;
    }
    return data;
}

UINT run_command(const std::wstring& command, const package_log& log)
{
    log.line(L"about to run: " + command);
    const process_output result = run_hidden_process(command);
    if (!result.output.empty()) {
        log.line(L"PowerShell Output: " + result.output);
    }
    if (!result.error.empty()) {
        log.error(L"PowerShell Error: " + result.error);
    }
    log.line(L"ran command - result exitCode: " + std::to_wstring(result.exit_code));
    return result.exit_code == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

UINT install_package(MSIHANDLE session)
{
    const package_log log{session, L"msix_install_package"};
    log.line(L"Starting InstallMsixPackage...");
    const std::optional<std::wstring> msix = read_data(session, log);
    if (!msix) {
        return ERROR_INVALID_PARAMETER;
    }
    log.line(L"Install path: " + std::wstring{parent_folder(*msix)});
    log.line(L"MSIX fullpath: " + *msix);
    return run_command(install_package_command(*msix), log);
}

UINT uninstall_package(MSIHANDLE session)
{
    const package_log log{session, L"msix_uninstall_package"};
    log.line(L"Starting UninstallMsixPackage...");
    const std::optional<std::wstring> name = read_data(session, log);
    if (!name) {
        return ERROR_INVALID_PARAMETER;
    }
    log.line(L"MSIX fullpath: " + *name); // a name, in fact; the line is the one that support knows
    if (!is_package_name(*name)) {
        return ERROR_INVALID_PARAMETER;
    }
    return run_command(uninstall_package_command(*name), log);
}

} // namespace
} // namespace custom_actions

UINT __stdcall msix_install_package(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(
        session, report_action_line{L"msix_install_package"}, [&] { return install_package(session); });
}

UINT __stdcall msix_uninstall_package(MSIHANDLE session)
{
    using namespace custom_actions;
    return run_action(
        session, report_action_line{L"msix_uninstall_package"}, [&] { return uninstall_package(session); });
}
