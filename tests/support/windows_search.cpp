#include "tests/support/windows_search.h"

#include "custom_actions/common/scoped_handle.h"
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

namespace test_support {
namespace {

void run_service_program(const std::wstring& arguments)
{
    const child_result ended = run_child(
        L'"' + beside_this_program(L"toy_service.exe") + L"\" " + arguments, std::chrono::seconds{45});
    if (ended.exit_code != 0) {
        throw std::runtime_error{"toy_service.exe: " + ended.output};
    }
}

} // namespace

windows_search::windows_search()
{
    run_service_program(L"--install 50");
}

windows_search::~windows_search()
{
    try {
        run_service_program(L"--remove");
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
}

void windows_search::start() const
{
    run_service_program(L"--start");
}

DWORD windows_search::state() const
{
    const custom_actions::service_handle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)};
    const custom_actions::service_handle service{
        OpenServiceW(manager.get(), L"WSearch", SERVICE_QUERY_STATUS)};
    SERVICE_STATUS status{};
    QueryServiceStatus(service.get(), &status);
    return status.dwCurrentState;
}

} // namespace test_support
