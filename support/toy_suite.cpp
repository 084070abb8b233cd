#include "support/toy_suite.h"

#include "custom_actions/processes/process_inventory.h"
#include "support/child_process.h"

#include <array>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace test_support {
namespace {

using custom_actions::kernel_handle;

constexpr DWORD START_LIMIT_MS = 20'000;
constexpr DWORD TERMINATION_LIMIT_MS = 5000;

// This process's own folder, deleted at the end. Emptied at first: a killed process may have left one with
// the same id.
class toy_folder {
public:
    toy_folder()
    {
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }

    ~toy_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    toy_folder(const toy_folder&) = delete;
    toy_folder& operator=(const toy_folder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_ =
        std::filesystem::temp_directory_path() / (L"toy-suite-" + std::to_wstring(GetCurrentProcessId()));
};

std::wstring copy_of(const wchar_t* original, const std::wstring& name)
{
    static const toy_folder folder;
    const auto copy = folder.path() / name;
    std::filesystem::copy_file(
        beside_this_program(original), copy, std::filesystem::copy_options::skip_existing);
    return copy;
}

} // namespace

std::size_t end_programs(const std::wstring& name)
{
    using custom_actions::find_processes_by_image;
    using custom_actions::listing;
    const std::array<std::wstring_view, 1> names{name};
    const std::size_t at_first = find_processes_by_image(names, listing::strict).size();
    for (int tries = 0; tries != 100; ++tries) { // 5 seconds
        const auto running = find_processes_by_image(names, listing::strict);
        if (running.empty()) {
            return at_first;
        }
        for (const DWORD process : running) {
            const kernel_handle program{OpenProcess(PROCESS_TERMINATE, FALSE, process)};
            TerminateProcess(program.get(), 0);
        }
        Sleep(50);
    }
    throw std::runtime_error{"a program did not end"};
}

void end_explorer()
{
    end_programs(L"explorer.exe");
}

std::wstring toy_library(const std::wstring& name)
{
    return copy_of(L"toy_extension.dll", name);
}

toy_process::toy_process(const std::wstring& name, const std::wstring& behaviour)
{
    static unsigned started_before = 0; // the previous program may still hold its event
    const std::wstring event =
        L"toy-ready-" + std::to_wstring(GetCurrentProcessId()) + L'-' + std::to_wstring(++started_before);
    const kernel_handle ready{CreateEventW(nullptr, TRUE, FALSE, event.c_str())};
    const std::wstring command_line =
        L'"' + copy_of(L"toy_program.exe", name) + L"\" --ready=" + event + L' ' + behaviour;
    started_child started = start_child(command_line);
    process_ = std::move(started.process);
    id_ = started.id;
    if (WaitForSingleObject(ready.get(), START_LIMIT_MS) != WAIT_OBJECT_0) {
        throw std::runtime_error{"the toy program did not become ready"};
    }
}

toy_process::~toy_process()
{
    TerminateProcess(process_.get(), 99);
    WaitForSingleObject(process_.get(), TERMINATION_LIMIT_MS);
}

std::optional<DWORD> toy_process::exit_code(std::chrono::milliseconds limit) const
{
    DWORD code = 0;
    const bool ended =
        WaitForSingleObject(process_.get(), static_cast<DWORD>(limit.count())) == WAIT_OBJECT_0;
    return ended && GetExitCodeProcess(process_.get(), &code) ? std::optional{code} : std::nullopt;
}

} // namespace test_support
