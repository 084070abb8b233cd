#include "tests/support/scheduler_stand_in.h"

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
        throw std::runtime_error{"cannot register the Task Scheduler's stand-in"};
    }
    clear();
}

scheduler_stand_in::~scheduler_stand_in()
{
    EXPECT_EQ(unexpected(), L"");
    EXPECT_EQ(objects(), 0U);
    clear();
    call_export(library_, "DllUnregisterServer");
    FreeLibrary(library_);
}

} // namespace test_support
