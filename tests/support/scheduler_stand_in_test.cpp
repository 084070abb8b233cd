// The stand-in where it could lie: that it counts, refuses and fails as it says, and really runs programs.

#include "tests/support/registry_sandbox.h"
#include "tests/support/scheduler_stand_in.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <taskschd.h>

namespace test_support {
namespace {

using testing::ElementsAre;

constexpr const wchar_t* SERVER =
    L"Software\\Classes\\CLSID\\{0F87369F-A4E5-4CFC-BD3E-73E6154572DD}\\InprocServer32";

// A text of COM.
class bstr {
public:
    explicit bstr(const wchar_t* text) : text_{SysAllocString(text)} {}

    ~bstr() { SysFreeString(text_); }

    bstr(const bstr&) = delete;
    bstr& operator=(const bstr&) = delete;

    [[nodiscard]] BSTR get() const noexcept { return text_; }

private:
    BSTR text_;
};

ITaskService* open_scheduler()
{
    void* service = nullptr;
    EXPECT_EQ(
        CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER, IID_ITaskService, &service),
        S_OK);
    return static_cast<ITaskService*>(service);
}

class SchedulerStandIn : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "registers a server for the machine: set DISPOSABLE_MACHINE where that may be";
        }
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    }

    void TearDown() override { CoUninitialize(); }
};

TEST_F(SchedulerStandIn, gives_the_class_back_to_the_system)
{
    const auto before = planted_value(HKEY_LOCAL_MACHINE, SERVER, nullptr);
    {
        const scheduler_stand_in first;
        EXPECT_NE(planted_value(HKEY_LOCAL_MACHINE, SERVER, nullptr), before);
        const scheduler_stand_in again; // as after a test that crashed
    }
    EXPECT_EQ(planted_value(HKEY_LOCAL_MACHINE, SERVER, nullptr), before);
    EXPECT_FALSE(planted_value(HKEY_LOCAL_MACHINE, SERVER, L"BeforeStandIn"));
}

TEST_F(SchedulerStandIn, tells_of_objects_left_and_of_calls_that_it_does_not_know)
{
    scheduler_stand_in scheduler;
    ITaskService* service = open_scheduler();
    EXPECT_EQ(scheduler.objects(), 1U);
    ITaskDefinition* definition = nullptr;
    ASSERT_EQ(service->NewTask(0, &definition), S_OK);
    BSTR text = nullptr;
    EXPECT_EQ(definition->get_XmlText(&text), E_NOTIMPL);
    ITaskFolder* folder = nullptr;
    EXPECT_EQ(service->GetFolder(bstr{L"\\"}.get(), &folder), E_INVALIDARG) << "not connected";
    EXPECT_THAT(
        scheduler.unexpected(),
        ElementsAre(L"ITaskDefinition, method 19", L"not ITaskService::Connect before the folder"));
    EXPECT_EQ(scheduler.objects(), 2U);
    definition->Release();
    service->Release();
    EXPECT_EQ(scheduler.objects(), 0U);
    scheduler.clear();

    scheduler.fail(L"IClassFactory::CreateInstance", E_OUTOFMEMORY);
    void* none = nullptr;
    EXPECT_EQ(
        CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER, IID_ITaskService, &none),
        E_OUTOFMEMORY);
}

} // namespace
} // namespace test_support
