#include "tests/support/scheduler_stand_in.h"

#include "custom_actions/common/registry_key.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"

#include <gtest/gtest.h>

#include <bit>
#include <stdexcept>

namespace test_support {
namespace {

HRESULT call_export(HMODULE library, const char* name)
{
    return std::bit_cast<HRESULT(STDAPICALLTYPE*)()>(GetProcAddress(library, name))();
}

} // namespace

scheduler_stand_in::scheduler_stand_in()
    : library_{LoadLibraryW(beside_this_program(L"toy_scheduler.dll").c_str())}
{
    if (!machine_is_disposable() || FAILED(call_export(library_, "DllRegisterServer"))) {
        throw std::runtime_error{"the scheduler's stand-in cannot be registered"};
    }
    clear();
}

scheduler_stand_in::~scheduler_stand_in()
{
    EXPECT_EQ(planted_value(HKEY_CURRENT_USER, STATE, L"Unexpected"), std::nullopt) << "calls";
    EXPECT_EQ(objects(), 0U);
    clear();
    call_export(library_, "DllUnregisterServer");
    FreeLibrary(library_);
}

void scheduler_stand_in::fail(const std::wstring& call)
{
    plant_value(HKEY_CURRENT_USER, STATE, L"Fail", registry_text(call));
}

void scheduler_stand_in::register_task(const std::wstring& name)
{
    plant_value(HKEY_CURRENT_USER, STATE + L"\\Tasks\\" + name, L"Path", registry_text(L"none.exe"));
}

std::map<std::wstring, scheduler_stand_in::properties> scheduler_stand_in::tasks() const
{
    std::map<std::wstring, properties> found;
    custom_actions::registry_key all;
    all.open(HKEY_CURRENT_USER, STATE + L"\\Tasks", KEY_READ);
    std::wstring name;
    for (DWORD index = 0; all.enumerate_subkey(index, name) == ERROR_SUCCESS; ++index) {
        custom_actions::registry_key task;
        task.open(all.get(), name, KEY_READ);
        std::wstring property;
        for (DWORD i = 0; task.enumerate_value_name(i, property) == ERROR_SUCCESS; ++i) {
            custom_actions::registry_value value;
            task.read(property.c_str(), 65536, value);
            found[name][property] = value.wide_text().value_or(L"");
        }
    }
    return found;
}

} // namespace test_support
