// The stand-in for every program of the suite, installed under each name. Its options:
//   --window=closes    a top-level window that closes on request (the default)
//   --window=ignores   a top-level window that ignores the request
//   --window=message   a message-only window, which no enumeration of windows finds
//   --window=none      no window
//   --class=NAME       the window's class
//   --load=PATH        loads a library first
//   --ready=NAME       sets this event once all of that is done

#include "package/toy_suite/process.h"

#include <windows.h>

#include <map>
#include <string>

namespace {

LRESULT CALLBACK on_message(HWND window, UINT message, WPARAM first, LPARAM second)
{
    if (message == WM_DESTROY) {
        PostQuitMessage(0);
        return 0;
    }
    return DefWindowProcW(window, message, first, second);
}

LRESULT CALLBACK ignore_close_requests(HWND window, UINT message, WPARAM first, LPARAM second)
{
    return message == WM_CLOSE ? 0 : on_message(window, message, first, second);
}

// The options by their names. Others are taken, too: the suite is started with some of its own.
std::map<std::wstring, std::wstring> read_options()
{
    std::map<std::wstring, std::wstring> options{{L"--window", L"closes"}, {L"--class", L"QuorbelToyWindow"}};
    for (const std::wstring& argument : toy_suite::read_arguments()) {
        const std::size_t equals = argument.find(L'=');
        if (equals != std::wstring::npos) {
            options[argument.substr(0, equals)] = argument.substr(equals + 1);
        }
    }
    return options;
}

void show_window(HINSTANCE instance, const wchar_t* class_name, const std::wstring& kind)
{
    WNDCLASSW window_class{};
    window_class.lpfnWndProc = kind == L"ignores" ? ignore_close_requests : on_message;
    window_class.hInstance = instance;
    window_class.lpszClassName = class_name;
    RegisterClassW(&window_class);
    auto* const parent = kind == L"message" ? HWND_MESSAGE : nullptr;
    CreateWindowExW(
        0, class_name, L"Quorbel", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, parent, nullptr, instance, nullptr);
}

} // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE /*previous*/, LPWSTR /*arguments*/, int /*show*/)
{
    auto options = read_options();
    const std::wstring& library = options[L"--load"];
    if (!library.empty() && LoadLibraryW(library.c_str()) == nullptr) {
        return 2;
    }
    const std::wstring& window = options[L"--window"];
    if (window != L"none") {
        show_window(instance, options[L"--class"].c_str(), window);
    }
    if (const std::wstring& event = options[L"--ready"]; !event.empty()) {
        const custom_actions::kernel_handle ready{OpenEventW(EVENT_MODIFY_STATE, FALSE, event.c_str())};
        SetEvent(ready.get());
    }
    MSG message{};
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        DispatchMessageW(&message);
    }
    return 0;
}
