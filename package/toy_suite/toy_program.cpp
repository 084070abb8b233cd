// The stand-in for every program of the suite, installed under each name. Its options:
//   --window=closes    a top-level window that closes on request (the default)
//   --window=ignores   a top-level window that ignores the request
//   --window=message   a message-only window, which no enumeration of windows finds
//   --window=none      no window
//   --class=NAME       the window's class
//   --load=PATH        loads a library first
//   --exit-delay=MS    how long the program runs on after its window is gone
//   --ready=NAME       sets this event once all of that is done

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

void show_window(HINSTANCE instance, const behaviour& options)
{
    WNDCLASSW window_class{};
    window_class.lpfnWndProc = options.window == L"ignores" ? ignore_close_requests : on_message;
    window_class.hInstance = instance;
    window_class.lpszClassName = options.window_class.c_str();
    RegisterClassW(&window_class);
    CreateWindowExW(
        0,
        options.window_class.c_str(),
        L"Quorbel",
        WS_OVERLAPPEDWINDOW,
        0,
        0,
        100,
        100,
        options.window == L"message" ? HWND_MESSAGE : nullptr,
        nullptr,
        instance,
        nullptr);
}

} // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE /*previous*/, LPWSTR /*arguments*/, int /*show*/)
{
    const behaviour options = read_command_line();
    if (!options.library.empty() && LoadLibraryW(options.library.c_str()) == nullptr) {
        return 2;
    }
    if (options.window != L"none") {
        show_window(instance, options);
    }
    if (!options.ready.empty()) {
        HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, options.ready.c_str());
        SetEvent(ready);
        CloseHandle(ready);
    }
    MSG message{};
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        DispatchMessageW(&message);
    }
    Sleep(options.exit_delay_ms);
    return 0;
}
