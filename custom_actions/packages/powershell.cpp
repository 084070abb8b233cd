#include "custom_actions/packages/powershell.h"

#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/processes/thread_identity.h"
#include "custom_actions/processes/user_process.h"

#include <wincrypt.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

namespace custom_actions {
namespace {

constexpr const char* RESULT_FAILURE = "Cannot read user operation result";
constexpr std::size_t LONGEST_LOG = std::size_t{16} * 1024 * 1024; // bytes
constexpr DWORD TERMINATION_LIMIT_MS = 5000;

// What the script prints goes to the log; so does the error that ends it, after what was printed before.
std::wstring logged_script(std::wstring_view script, const std::wstring& log)
{
    const std::wstring quoted_log = quote_powershell_literal(log);
    std::wstring wrapped =
        L"$ErrorActionPreference='Stop'; $ProgressPreference='SilentlyContinue'; try { & { ";
    wrapped.append(script)
        .append(L" } *>&1 | Out-File -LiteralPath ")
        .append(quoted_log)
        .append(L" -Encoding utf8; exit 0 } catch { $_ | Out-String | Out-File -LiteralPath ")
        .append(quoted_log)
        .append(L" -Encoding utf8 -Append; exit 1 }");
    return wrapped;
}

std::wstring base64_of_utf16(std::wstring_view text, const char* failure)
{
    const auto* const bytes = reinterpret_cast<const BYTE*>(text.data());
    const auto size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    constexpr DWORD format = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    DWORD length = 0;
    check_bool(CryptBinaryToStringW(bytes, size, format, nullptr, &length), failure);
    std::wstring encoded(length, L'\0');
    check_bool(CryptBinaryToStringW(bytes, size, format, encoded.data(), &length), failure);
    encoded.resize(encoded.find(L'\0')); // the first call counts the terminator
    return encoded;
}

struct running_script {
    kernel_handle user;
    kernel_handle process;
};

running_script start_script(const controlled_upgrade::context& context, const std::wstring& script)
{
    const std::wstring arguments = powershell_arguments(script, "Cannot encode user operation");
    const std::wstring directory = system_directory("Cannot resolve system directory");
    const std::wstring program = powershell_program(directory);
    kernel_handle user = controlled_upgrade::interactive_user_token(context);
    kernel_handle process = start_as_user(
        user.get(),
        {.path = program,
         .command_line = L'"' + program + L"\" " + arguments,
         .directory = directory,
         .creation_flags = CREATE_NO_WINDOW,
         .environment_failure = "Cannot create user environment",
         .start_failure = "Cannot launch package operation as original user"});
    return {.user = std::move(user), .process = std::move(process)};
}

// The whole log; nothing unless it is a file on a disk, of at most 16 MiB, that can be read to its end. The
// user could have put anything else in its place. It is opened under the user's own identity, so that a link
// to another file, or a pipe that asks who is there, gets no more than the user's rights.
std::optional<std::string> read_log(HANDLE user, const std::wstring& path)
{
    thread_identity identity{RESULT_FAILURE};
    identity.impersonate(user, RESULT_FAILURE);
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    const kernel_handle file{CreateFileW(
        path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (!file || GetFileType(file.get()) != FILE_TYPE_DISK) {
        return std::nullopt;
    }
    std::string content;
    std::array<char, 4096> chunk{};
    DWORD read = 0;
    while (content.size() <= LONGEST_LOG &&
           ReadFile(file.get(), chunk.data(), static_cast<DWORD>(chunk.size()), &read, nullptr)) {
        if (read == 0) {
            return content;
        }
        content.append(chunk.data(), read);
    }
    return std::nullopt;
}

} // namespace

std::wstring quote_powershell_literal(std::wstring_view text)
{
    std::wstring literal = L"'";
    for (const wchar_t character : text) {
        literal.append(character == L'\'' ? 2 : 1, character);
    }
    return literal += L'\'';
}

std::wstring powershell_program(const std::wstring& system_directory)
{
    return system_directory + LR"(\WindowsPowerShell\v1.0\powershell.exe)";
}

std::wstring powershell_arguments(std::wstring_view script, const char* failure)
{
    return L"-NoProfile -NonInteractive -WindowStyle Hidden -EncodedCommand " +
           base64_of_utf16(script, failure);
}

std::string run_powershell(
    MSIHANDLE session,
    const controlled_upgrade::context& context,
    std::wstring_view script,
    const std::wstring& operation,
    DWORD timeout_ms)
{
    const std::wstring log = join_path(context.workspace, L"output\\" + operation + L".log");
    const auto [user, process] = start_script(context, logged_script(script, log));
    upgrade_log(session, L"Starting " + operation + L" for " + context.user_sid);

    const ULONGLONG start = GetTickCount64();
    if (WaitForSingleObject(process.get(), timeout_ms) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), ERROR_TIMEOUT);
        WaitForSingleObject(process.get(), TERMINATION_LIMIT_MS);
        upgrade_log(
            session,
            L"Operation timed out; AppX service work may still be pending. Retaining recovery state at " +
                context.workspace);
        throw std::runtime_error{"User operation timed out; see retained upgrade recovery logs"};
    }
    DWORD exit_code = 0;
    check_bool(GetExitCodeProcess(process.get(), &exit_code), RESULT_FAILURE);
    std::optional<std::string> output = read_log(user.get(), log);
    upgrade_log(
        session,
        operation + L" finished in " + std::to_wstring(GetTickCount64() - start) + L" ms, exit " +
            std::to_wstring(exit_code) + L"; log: " + log);
    if (exit_code != 0 || !output) {
        throw std::runtime_error{"User operation failed; see retained upgrade recovery logs"};
    }
    return *std::move(output);
}

} // namespace custom_actions
