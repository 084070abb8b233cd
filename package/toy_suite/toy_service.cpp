// Windows Search of the toy suite: a service program, to be installed under that service's name, "WSearch".
// What it does is in the values of the key Toy below the service's own key; where one is missing, it starts
// and stops at once.
//   StartTime     how long starting takes, in milliseconds
//   StopTime      how long stopping takes
//   Watch         a file, whose first line it keeps when it starts and when it stops
// The values of the key Asked, beside that, tell what was asked of it: the numbers Starts and Stops, and the
// lines AtStart and AtStop of the watched file. The event Global\toy-search-end ends it, in whatever state it
// is.

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <string>

namespace {

constexpr const wchar_t* SERVICE_NAME = L"WSearch";
constexpr const wchar_t* TOLD = LR"(SYSTEM\CurrentControlSet\Services\WSearch\Toy)";
constexpr const wchar_t* ASKED = LR"(SYSTEM\CurrentControlSet\Services\WSearch\Asked)";

DWORD read_number(const wchar_t* key, const wchar_t* name, DWORD otherwise)
{
    DWORD number = 0;
    DWORD size = sizeof number;
    const LSTATUS status =
        RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_DWORD, nullptr, &number, &size);
    return status == ERROR_SUCCESS ? number : otherwise;
}

void count_one(const wchar_t* name)
{
    const DWORD count = read_number(ASKED, name, 0) + 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, ASKED, name, REG_DWORD, &count, sizeof count);
}

void keep_watched_line(const wchar_t* name)
{
    wchar_t path[MAX_PATH]{};
    DWORD size = sizeof path;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, TOLD, L"Watch", RRF_RT_REG_SZ, nullptr, path, &size) !=
        ERROR_SUCCESS) {
        return;
    }
    std::ifstream file{path};
    std::string line;
    std::getline(file, line);
    std::erase(line, '\r');
    const std::wstring kept{line.begin(), line.end()};
    RegSetKeyValueW(
        HKEY_LOCAL_MACHINE,
        ASKED,
        name,
        REG_SZ,
        kept.c_str(),
        static_cast<DWORD>((kept.size() + 1) * sizeof(wchar_t)));
}

class toy_service {
public:
    toy_service()
    {
        ResetEvent(end_asked_); // the program before may still hold it
    }

    void run()
    {
        if (start()) {
            const HANDLE asked[]{stop_asked_, end_asked_};
            if (WaitForMultipleObjects(2, asked, FALSE, INFINITE) == WAIT_OBJECT_0) {
                stop();
            }
        }
        report(SERVICE_STOPPED);
    }

private:
    static DWORD WINAPI on_control(DWORD control, DWORD /*event*/, LPVOID /*data*/, LPVOID context)
    {
        auto& service = *static_cast<toy_service*>(context);
        switch (control) {
        case SERVICE_CONTROL_STOP:
            count_one(L"Stops");
            service.report(SERVICE_STOP_PENDING);
            SetEvent(service.stop_asked_);
            return NO_ERROR;
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
        }
    }

    void report(DWORD state)
    {
        SERVICE_STATUS status{};
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status.dwCurrentState = state;
        status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
        SetServiceStatus(reporting_, &status);
    }

    // Waits for as long as it is told; false where the end was asked for.
    bool pass_time(const wchar_t* told)
    {
        return WaitForSingleObject(end_asked_, read_number(TOLD, told, 0)) == WAIT_TIMEOUT;
    }

    bool start()
    {
        report(SERVICE_START_PENDING);
        count_one(L"Starts");
        keep_watched_line(L"AtStart");
        if (!pass_time(L"StartTime")) {
            return false;
        }
        report(SERVICE_RUNNING);
        return true;
    }

    void stop()
    {
        if (pass_time(L"StopTime")) {
            keep_watched_line(L"AtStop");
        }
    }

    // All of them are the process's own until it ends.
    HANDLE stop_asked_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE end_asked_ = CreateEventW(nullptr, TRUE, FALSE, LR"(Global\toy-search-end)");
    SERVICE_STATUS_HANDLE reporting_ = RegisterServiceCtrlHandlerExW(SERVICE_NAME, on_control, this);
};

void WINAPI run_service(DWORD /*count*/, LPWSTR* /*arguments*/)
{
    toy_service{}.run();
}

} // namespace

int main()
{
    std::wstring name = SERVICE_NAME;
    const SERVICE_TABLE_ENTRYW services[]{{name.data(), run_service}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(services) ? 0 : 1;
}
