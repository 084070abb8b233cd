#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

// Every list of program and module names, each with the reason why it differs from its neighbours. Image
// names are compared without regard to case.
namespace custom_actions {

template <std::size_t First, std::size_t Second>
consteval std::array<std::wstring_view, First + Second>
joined(const std::array<std::wstring_view, First>& first, const std::array<std::wstring_view, Second>& second)
{
    std::array<std::wstring_view, First + Second> all{};
    std::ranges::copy(second, std::ranges::copy(first, all.begin()).out);
    return all;
}

inline constexpr std::wstring_view MAIN_PROGRAM = L"Quorbel.exe";
inline constexpr std::wstring_view HELPER_PROGRAM = L"Quorbel.Kindra.HelperService.exe";
inline constexpr std::wstring_view AUTO_TAGGING_PROGRAM = L"Quorbel.AutoTagging.Service.exe";
inline constexpr std::wstring_view TRAY_PROGRAM = L"Quorbel.SystemTray.exe";

// The suite's own programs. The tray is not among them: whoever closes it names it.
inline constexpr std::array<std::wstring_view, 11> our_process_images{
    MAIN_PROGRAM,
    L"Quorbel.HotkeyHandler.exe",
    L"Quorbel.HotkeyHandler.Helper.exe",
    HELPER_PROGRAM,
    AUTO_TAGGING_PROGRAM,
    L"Sorvane.Common.TagManager.exe",
    L"Quorbel.Comment.exe",
    L"Quorbel.Paste.exe",
    L"Quorbel.Kindra.VariablesUX.exe",
    L"Quorbel.MessageDialog.exe",
    L"Sorvane.Common.BatchProcessor.exe",
};

// What close_and_kill_our_processes closes: the tray, too.
inline constexpr auto RESIDENT_IMAGES = joined(our_process_images, std::array{TRAY_PROGRAM});

// What must be gone before an upgrade replaces files: also the controller of the context-menu replacement.
inline constexpr auto UPGRADE_IMAGES =
    joined(RESIDENT_IMAGES, std::array{std::wstring_view{L"Quorbel.ContextMenuReplacement.Controller.exe"}});

// What is asked to close early, before the installer looks for files in use. The phases close whatever else
// runs.
inline constexpr std::array<std::wstring_view, 6> EARLY_CLOSE_IMAGES{
    MAIN_PROGRAM,
    L"Sorvane.Common.TagManager.exe",
    L"Quorbel.HotkeyHandler.exe",
    HELPER_PROGRAM,
    AUTO_TAGGING_PROGRAM, // closed, but never started again
    TRAY_PROGRAM,
};

// The helper service, which a finished upgrade starts again if it ran before.
inline constexpr std::array HELPER_IMAGES{HELPER_PROGRAM};

inline constexpr std::array<std::wstring_view, 1> EXPLORER_IMAGES{L"explorer.exe"};

// The programs that load shell extensions.
inline constexpr std::array<std::wstring_view, 2> shell_host_images{L"dllhost.exe", L"explorer.exe"};

// The hook that other applications load: a pattern, since its name has a variable part.
inline constexpr std::array<std::wstring_view, 1> HOOK_MODULES{L"Quorbel.WindowOrganizer*.dll"};

// The suite's shell extensions and hooks, which only shell hosts are searched for. Of the two hooks, only the
// first is waited for in other applications.
inline constexpr auto our_shell_modules = joined(
    std::array<std::wstring_view, 10>{
        L"Quorbel.Plexa.ShellExtension.dll",
        L"Quorbel.Kindra.ShellExtension.dll",
        L"Quorbel.Paste.ShellExtension.dll",
        L"Quorbel.Comment.ShellExtension.dll",
        L"Sorvane.Icon.ShellExtension.dll",
        L"Sorvane.Rate.ShellExtension.dll",
        L"Sorvane.Tag.ShellExtension.dll",
        L"Sorvane.Namespace.ShellExtension.dll",
        L"Sorvane.PropertyHandler.ShellExtension.dll",
        L"Sorvane.IconHandler.ShellExtension.dll",
    },
    joined(HOOK_MODULES, std::array{std::wstring_view{L"Quorbel.ContextMenuReplacement.Hook*.dll"}}));

// The window classes of the desktop and the taskbars, which are never asked to close. Compared with their
// case.
inline constexpr std::array<std::wstring_view, 4> DESKTOP_CLASSES{
    L"Progman", L"WorkerW", L"Shell_TrayWnd", L"Shell_SecondaryTrayWnd"};

} // namespace custom_actions
