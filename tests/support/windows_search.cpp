#include "tests/support/windows_search.h"

#include "custom_actions/common/scoped_handle.h"
#include "custom_actions/common/windows_error.h"
#include "custom_actions/search/search_service.h"
#include "support/child_process.h"
#include "support/registry_sandbox.h"

#include <gtest/gtest.h>

#include <chrono>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string_view>

namespace test_support {
namespace {

using custom_actions::open_search_service;
using custom_actions::query_search_state;
using custom_actions::service_handle;
using custom_actions::throw_last_error;

constexpr const wchar_t* PROGRAM = L"toy_service.exe";
const std::wstring KEY = LR"(SYSTEM\CurrentControlSet\Services\WSearch)";

// Not with Sleep, on which a test may play.
void wait_until(const std::function<bool()>& reached)
{
    for (int tries = 0; !reached(); ++tries) {
        if (tries == 1000) {
            throw std::runtime_error{"the toy service does not get there"};
        }
        SleepEx(10, FALSE);
    }
}

// It is gone once its program has ended and nobody has it open.
void remove_service()
{
    if (const service_handle service = open_search_service(SERVICE_ALL_ACCESS)) {
        const std::string bytes = planted_value(HKEY_LOCAL_MACHINE, KEY, L"ImagePath").value_or("");
        const std::wstring_view path{
            reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t)};
        if (path.find(PROGRAM) == std::wstring_view::npos) {
            throw std::runtime_error{"this machine has a Windows Search of its own"};
        }
        const custom_actions::kernel_handle end{
            OpenEventW(EVENT_MODIFY_STATE, FALSE, LR"(Global\toy-search-end)")};
        SetEvent(end.get()); // where there is none, it does not run
        wait_until([&] { return query_search_state(service.get()) == SERVICE_STOPPED; });
        DeleteService(service.get());
    }
    wait_until([] { return !open_search_service(SERVICE_QUERY_STATUS); });
}

} // namespace

windows_search::windows_search()
{
    remove_service();
    const child_result made = run_child(
        LR"(sc.exe create WSearch start= demand binPath= "\")" + beside_this_program(PROGRAM) + LR"(\"")",
        std::chrono::seconds{30});
    if (made.exit_code != 0) {
        throw std::runtime_error{"the toy service cannot be installed: " + made.output};
    }
    plant_number(HKEY_LOCAL_MACHINE, KEY + L"\\Toy", L"StartTime", 50);
    plant_number(HKEY_LOCAL_MACHINE, KEY + L"\\Toy", L"StopTime", 50);
}

windows_search::~windows_search()
{
    try {
        remove_service();
    } catch (const std::exception& error) {
        ADD_FAILURE() << "the toy service stays: " << error.what();
    }
}

void windows_search::start() const
{
    const service_handle service = open_search_service(SERVICE_START);
    if (!StartServiceW(service.get(), 0, nullptr) &&
        (GetLastError() != ERROR_SERVICE_REQUEST_TIMEOUT || // on a busy machine
         !StartServiceW(service.get(), 0, nullptr))) {
        throw_last_error("StartServiceW");
    }
    wait_until([&] { return starts() != 0 && state() == SERVICE_RUNNING; });
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, (KEY + L"\\Asked").c_str());
}

DWORD windows_search::state() const
{
    return query_search_state(open_search_service(SERVICE_QUERY_STATUS).get());
}

DWORD windows_search::starts() const
{
    return planted_number(HKEY_LOCAL_MACHINE, KEY + L"\\Asked", L"Starts");
}

} // namespace test_support
