#include "custom_actions/processes/user_process.h"

#include "custom_actions/common/windows_error.h"

#include <userenv.h>

namespace custom_actions {
namespace {

struct environment_block_traits {
    using handle_type = void*;

    static bool is_open(handle_type handle) noexcept { return handle != nullptr; }

    static void close(handle_type handle) noexcept { DestroyEnvironmentBlock(handle); }
};

using environment_block = scoped_handle<environment_block_traits>;

} // namespace

kernel_handle start_as_user(HANDLE user, const user_program& program)
{
    environment_block environment;
    if (!CreateEnvironmentBlock(environment.put(), user, FALSE)) {
        throw_last_error(program.environment_failure);
    }
    std::wstring command_line = program.command_line;
    std::wstring desktop = LR"(winsta0\default)";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop.data();
    PROCESS_INFORMATION started{};
    if (!CreateProcessAsUserW(
            user,
            program.path.c_str(),
            command_line.data(),
            nullptr,
            nullptr,
            FALSE,
            program.creation_flags | CREATE_UNICODE_ENVIRONMENT,
            environment.get(),
            program.directory.c_str(),
            &startup,
            &started)) {
        throw_last_error(program.start_failure);
    }
    const kernel_handle thread{started.hThread};
    return kernel_handle{started.hProcess};
}

} // namespace custom_actions
