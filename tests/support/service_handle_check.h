#pragma once

#include "tests/support/import_patch.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <winsvc.h>

#include <set>

namespace test_support {

// Follows the handles of the service manager that a module opens and closes. Fails the test where one is left
// open at the end, or one is closed that was not opened. One can live at a time.
class service_handle_check {
public:
    explicit service_handle_check(HMODULE module)
        : manager_{module, "OpenSCManagerW", &open_manager}, service_{module, "OpenServiceW", &open_service},
          close_{module, "CloseServiceHandle", &close}
    {
        active_ = this;
    }

    ~service_handle_check() { EXPECT_EQ(open_.size(), 0U) << "service handles left open"; }

    service_handle_check(const service_handle_check&) = delete;
    service_handle_check& operator=(const service_handle_check&) = delete;

private:
    static SC_HANDLE opened(SC_HANDLE handle)
    {
        if (handle != nullptr) {
            active_->open_.insert(handle);
        }
        return handle;
    }

    static SC_HANDLE WINAPI open_manager(LPCWSTR machine, LPCWSTR database, DWORD access)
    {
        EXPECT_EQ(access, DWORD{SC_MANAGER_CONNECT});
        return opened(active_->manager_.original()(machine, database, access));
    }

    static SC_HANDLE WINAPI open_service(SC_HANDLE manager, LPCWSTR name, DWORD access)
    {
        return opened(active_->service_.original()(manager, name, access));
    }

    static BOOL WINAPI close(SC_HANDLE handle)
    {
        EXPECT_EQ(active_->open_.erase(handle), 1U) << "no handle that is open";
        return active_->close_.original()(handle);
    }

    inline static service_handle_check* active_ = nullptr;

    import_patch<decltype(OpenSCManagerW)> manager_;
    import_patch<decltype(OpenServiceW)> service_;
    import_patch<decltype(CloseServiceHandle)> close_;
    std::set<SC_HANDLE> open_;
};

} // namespace test_support
