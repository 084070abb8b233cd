#include "tests/support/scheduler_stand_in.h"

#include "custom_actions/common/registry_key.h"
#include "tests/support/child_process.h"
#include "tests/support/registry_sandbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace test_support {
namespace {

using custom_actions::registry_key;
using custom_actions::registry_value;

constexpr const wchar_t* STATE = L"Software\\QuorbelStandIn\\TaskScheduler";
constexpr DWORD LIMIT = 1024 * 1024;

registry_key state_key()
{
    registry_key key;
    if (key.create(HKEY_CURRENT_USER, std::wstring{STATE}, custom_actions::KEY_READ_WRITE) != ERROR_SUCCESS) {
        throw std::runtime_error{"the state of the scheduler's stand-in cannot be opened"};
    }
    return key;
}

void tell(const wchar_t* name, DWORD number)
{
    RegSetValueExW(
        state_key().get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
}

std::vector<std::wstring> lines_of(const wchar_t* name)
{
    registry_value value;
    state_key().read(name, LIMIT, value);
    std::wistringstream text{value.wide_text().value_or(L"")};
    std::vector<std::wstring> lines;
    for (std::wstring line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

HRESULT call_export(HMODULE library, const char* name)
{
    const auto function =
        reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(reinterpret_cast<void*>(GetProcAddress(library, name)));
    return function == nullptr ? E_NOINTERFACE : function();
}

} // namespace

scheduler_stand_in::scheduler_stand_in()
    : library_{
          LoadLibraryW((std::filesystem::path{this_program()}.parent_path() / L"toy_scheduler.dll").c_str())}
{
    if (!machine_is_disposable() || FAILED(call_export(library_, "DllRegisterServer"))) {
        throw std::runtime_error{"the scheduler's stand-in cannot be registered"};
    }
    clear();
}

scheduler_stand_in::~scheduler_stand_in()
{
    EXPECT_THAT(unexpected(), testing::IsEmpty());
    EXPECT_EQ(objects(), 0U);
    clear();
    call_export(library_, "DllUnregisterServer");
    FreeLibrary(library_);
}

void scheduler_stand_in::fail(const std::wstring& call, HRESULT code)
{
    state_key().write_text(L"Fail", call);
    tell(L"FailWith", static_cast<DWORD>(code));
}

void scheduler_stand_in::stay_in(DWORD state)
{
    tell(L"State", state);
}

void scheduler_stand_in::end_with(HRESULT result)
{
    tell(L"Result", static_cast<DWORD>(result));
}

void scheduler_stand_in::clear()
{
    RegDeleteTreeW(HKEY_CURRENT_USER, STATE);
}

void scheduler_stand_in::register_task(const std::wstring& name, const properties& task)
{
    for (const auto& [property, value] : task) {
        plant_value(
            HKEY_CURRENT_USER,
            std::wstring{STATE} + L"\\Tasks\\" + name,
            property.c_str(),
            registry_text(value));
    }
}

std::map<std::wstring, scheduler_stand_in::properties> scheduler_stand_in::tasks() const
{
    std::map<std::wstring, properties> found;
    registry_key all;
    all.open(HKEY_CURRENT_USER, std::wstring{STATE} + L"\\Tasks", KEY_READ);
    std::wstring name;
    for (DWORD index = 0; all.get() != nullptr && all.enumerate_subkey(index, name) == ERROR_SUCCESS;
         ++index) {
        registry_key task;
        task.open(all.get(), name, KEY_READ);
        std::wstring property;
        for (DWORD i = 0; task.enumerate_value_name(i, property) == ERROR_SUCCESS; ++i) {
            registry_value value;
            task.read(property.c_str(), LIMIT, value);
            found[name][property] = value.wide_text().value_or(L"");
        }
    }
    return found;
}

std::vector<std::wstring> scheduler_stand_in::calls() const
{
    return lines_of(L"Calls");
}

std::vector<std::wstring> scheduler_stand_in::unexpected() const
{
    return lines_of(L"Unexpected");
}

DWORD scheduler_stand_in::objects() const
{
    registry_value value;
    state_key().read(L"Objects", sizeof(DWORD), value);
    DWORD count = 0;
    std::memcpy(&count, value.data.data(), value.data.size());
    return count;
}

} // namespace test_support
