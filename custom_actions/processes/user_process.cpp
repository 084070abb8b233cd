#include "custom_actions/processes/user_process.h"

#include "custom_actions/common/windows_error.h"

#include <userenv.h>

namespace custom_actions {
namespace {

using environment_block = scoped_handle<void*, DestroyEnvironmentBlock>;

} // namespace

kernel_handle start_as_user(HANDLE user, const user_program& program)
{
    environment_block environment;
    check_bool(CreateEnvironmentBlock(environment.put(), user, FALSE), program.environment_failure);
    std::wstring command_line = program.command_line;
    std::wstring desktop = LR"(winsta0\default)";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop.data();
    PROCESS_INFORMATION started{};
    const wchar_t* const path = program.path.c_str();
    const wchar_t* const folder = program.directory.c_str();
    wchar_t* const line = command_line.data();
    const DWORD flags = program.creation_flags | CREATE_UNICODE_ENVIRONMENT;
    void* const block = environment.get();
    check_bool(
        CreateProcessAsUserW(
            user, path, line, nullptr, nullptr, FALSE, flags, block, folder, &startup, &started),
        program.start_failure);
    const kernel_handle thread{started.hThread};
    return kernel_handle{started.hProcess};
}

} // namespace custom_actions
