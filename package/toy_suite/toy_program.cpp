// A program of the toy suite: the same one under each name. What it does is on its command line:
//   --window=closes    a top-level window that closes when it is asked to (this is the default)
//   --window=ignores   one that does not
//   --window=none      no window
//   --class=NAME       the window's class
//   --load=PATH        loads a library first
//   --exit-delay=MS    how long it takes to end after its window is gone
//   --ready=NAME       sets the event of this name once all that is done

#include "package/toy_suite/arguments.h"

#include <windows.h>

#include <string>

namespace {

struct behaviour {
    std::wstring window = L"closes";
    std::wstring window_class = L"QuorbelToyWindow";
    std::wstring library;
    std::wstring ready;
    DWORD exit_delay_ms = 0;
};

LRESULT CALLBACK on_message(HWND window, UINT message, WPARAM first, LPARAM second)
{
    switch (message) {
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcW(window, message, first, second);
    }
}

LRESULT CALLBACK ignore_close_requests(HWND window, UINT message, WPARAM first, LPARAM second)
{
    return message == WM_CLOSE ? 0 : on_message(window, message, first, second);
}

behaviour read_command_line()
{
    behaviour read;
    for (const std::wstring& argument : toy_suite::read_arguments()) {
        const std::size_t equals = argument.find(L'=');
        const std::wstring name = argument.substr(0, equals);
        const std::wstring value = equals == std::wstring::npos ? L"" : argument.substr(equals + 1);
        if (name == L"--window") {
            read.window = value;
        } else if (name == L"--class") {
            read.window_class = value;
        } else if (name == L"--load") {
            read.library = value;
        } else if (name == L"--ready") {
            read.ready = value;
        } else if (name == L"--exit-delay") {
            read.exit_delay_ms = static_cast<DWORD>(std::stoul(value));
        }
    }
    return read;
}

void show_window(HINSTANCE instance, const behaviour& told)
{
    WNDCLASSW window_class{};
    window_class.lpfnWndProc = told.window == L"ignores" ? ignore_close_requests : on_message;
    window_class.hInstance = instance;
    window_class.lpszClassName = told.window_class.c_str();
    RegisterClassW(&window_class);
    CreateWindowExW(
        0,
        told.window_class.c_str(),
        L"Quorbel",
        WS_OVERLAPPEDWINDOW,
        0,
        0,
        100,
        100,
        nullptr,
        nullptr,
        instance,
        nullptr);
}

} // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE /*previous*/, LPWSTR /*arguments*/, int /*show*/)
{
    const behaviour told = read_command_line();
    if (!told.library.empty() && LoadLibraryW(told.library.c_str()) == nullptr) {
        return 2;
    }
    if (told.window != L"none") {
        show_window(instance, told);
    }
    if (!told.ready.empty()) {
        HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, told.ready.c_str());
        SetEvent(ready);
        CloseHandle(ready);
    }
    MSG message{};
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        DispatchMessageW(&message);
    }
    Sleep(told.exit_delay_ms);
    return 0;
}
