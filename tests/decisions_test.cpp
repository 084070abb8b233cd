// The library's pure functions, by rows of plain data.

#include "custom_actions/common/path.h"
#include "custom_actions/common/registry_key.h"
#include "custom_actions/packages/msix_package.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/module_pattern.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/search/transition.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_lists.h"
#include "custom_actions/upgrade/recovery_task.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace custom_actions {
namespace {

template <class Char>
std::basic_string<Char> in_one_line(const auto& names)
{
    std::basic_string<Char> line;
    for (const std::basic_string_view<Char> name : names) {
        line.append(name) += Char{' '};
    }
    return line;
}

TEST(Tables, have_these_entries)
{
    EXPECT_EQ(
        in_one_line<char>(PROPERTY_HANDLER_EXTENSIONS),
        ".arw .asm .aspx .avi .bat .bmp .c .cmd .config .cpp .cs .csv .d64 .dll .doc .docx .gif .gfie .h "
        ".heic .hpp "
        ".htm .html .ico .ini .jpeg .jpg .json .jxl .lnk .log .lnx .master .md .mov .mp4 .msi .pdf .pfx .png "
        ".prg .ppt "
        ".pptx .ps1 .rar .reg .rtf .sid .sln .svg .tif .tiff .tmp .txt .url .wav .webmanifest .webp .wma "
        ".xls .xlsx .xml "
        ".zip .mp3 ");
    EXPECT_EQ(
        in_one_line<char>(FORCE_OVERRIDE_EXTENSIONS),
        ".arw .bmp .gif .heic .ico .jpeg .jpg .tif .tiff .url .webp ");
    EXPECT_EQ(in_one_line<char>(EXTENDED_DETAILS_EXTENSIONS), ".arw .heic .jpeg .jpg .tif .tiff .webp ");
    EXPECT_EQ(
        in_one_line<wchar_t>(UPGRADE_IMAGES),
        L"Quorbel.exe Quorbel.HotkeyHandler.exe Quorbel.HotkeyHandler.Helper.exe "
        L"Quorbel.Kindra.HelperService.exe "
        L"Quorbel.AutoTagging.Service.exe Sorvane.Common.TagManager.exe Quorbel.Comment.exe "
        L"Quorbel.Paste.exe "
        L"Quorbel.Kindra.VariablesUX.exe Quorbel.MessageDialog.exe Sorvane.Common.BatchProcessor.exe "
        L"Quorbel.SystemTray.exe Quorbel.ContextMenuReplacement.Controller.exe ");
    EXPECT_EQ(
        in_one_line<wchar_t>(EARLY_CLOSE_IMAGES),
        L"Quorbel.exe Sorvane.Common.TagManager.exe Quorbel.HotkeyHandler.exe "
        L"Quorbel.Kindra.HelperService.exe "
        L"Quorbel.AutoTagging.Service.exe Quorbel.SystemTray.exe ");
    EXPECT_EQ(
        in_one_line<wchar_t>(our_shell_modules),
        L"Quorbel.Plexa.ShellExtension.dll Quorbel.Kindra.ShellExtension.dll "
        L"Quorbel.Paste.ShellExtension.dll "
        L"Quorbel.Comment.ShellExtension.dll Sorvane.Icon.ShellExtension.dll Sorvane.Rate.ShellExtension.dll "
        L"Sorvane.Tag.ShellExtension.dll Sorvane.Namespace.ShellExtension.dll "
        L"Sorvane.PropertyHandler.ShellExtension.dll Sorvane.IconHandler.ShellExtension.dll "
        L"Quorbel.WindowOrganizer*.dll Quorbel.ContextMenuReplacement.Hook*.dll ");
    std::string lists;
    for (const auto& [value, text] : DETAILS_LISTS) {
        lists.append(value).append("=").append(text) += '\n';
    }
    EXPECT_EQ(
        lists,
        "FullDetails=prop:System.PropGroup.Description;System.Rating;System.Keywords;System.Comment;"
        "System.PropGroup.FileSystem;System.ItemNameDisplay;System.ItemType;System.ItemFolderPathDisplay;"
        "System.DateCreated;System.DateModified;System.Size;System.FileAttributes;System.OfflineAvailability;"
        "System.OfflineStatus;System.SharedWith;System.FileOwner;System.ComputerName\n"
        "PreviewDetails=prop:System.ItemType;System.Comment;System.Keywords;System.Rating;System.Size\n"
        "InfoTip=prop:System.ItemType;System.Keywords;System.Rating;System.Comment;System.Size\n");
    EXPECT_EQ(RESIDENT_IMAGES.size(), 12U) << "all but the last of those that an upgrade closes";
    EXPECT_EQ(in_one_line<wchar_t>(shell_host_images), L"dllhost.exe explorer.exe ");
    EXPECT_EQ(
        in_one_line<wchar_t>(controlled_upgrade::UPGRADE_PACKAGES),
        L"Sorvane.Icon.Package.msix Sorvane.Organize.Package.msix Sorvane.Tag.Package.msix "
        L"Sorvane.Rate.Package.msix "
        L"Quorbel.Kindra.Package.msix Quorbel.Paste.Package.msix Quorbel.Comment.Package.msix "
        L"Quorbel.Plexa.Package.msix ");
}

TEST(ModulePattern, matches_the_whole_name_in_any_case)
{
    const std::pair<const wchar_t*, bool> names[]{
        {L"QUORBEL.WINDOWORGANIZER.x64.dll.DLL", true},
        {L"Quorbel.WindowOrganizer.dll", true},
        {L"Quorbel.WindowOrganizer.dll.bak", false},
        {L"My.Quorbel.WindowOrganizer.dll", false}};
    for (const auto& [name, matches] : names) {
        EXPECT_EQ(matches_module_pattern(name, HOOK_MODULES[0]), matches) << testing::PrintToString(name);
    }
}

TEST(PropertyLists, gain_and_lose_the_extra_properties)
{
    const std::string extra = "System.Calendar.Location";
    const std::string anchor = "System.PropGroup.Description;";
    const std::optional<std::string> same;
    const auto infotip = [](const std::string& list) { return with_infotip_extra(list); };
    const auto without = [](const std::string& list) { return without_infotip_extra(list); };
    const auto details = [](const std::string& list) { return with_full_details_extra(list, "Z"); };
    const auto no_details = [](const std::string& list) { return without_full_details_extra(list, "Z"); };

    const struct {
        const char* name;
        std::optional<std::string> (*change)(const std::string&);
        std::string list;
        std::optional<std::string> expected;
    } rows[]{
        {"appended", infotip, "prop:A", "prop:A;" + extra},
        {"empty", infotip, "", same},
        {"there as part of another name", infotip, "prop:My" + extra + "Too", same},
        {"behind the anchor", details, "prop:" + anchor + "A", "prop:" + anchor + "Z;A"},
        {"no anchor", details, "prop:A;B", same},
        {"there", details, anchor + "A;Z", same},
        {"with the separator in front", without, "A;" + extra + ";B;" + extra, "A;B;" + extra},
        {"with the separator behind", without, extra + ";B", "B"},
        {"alone", without, extra, ""},
        {"not there", without, "A;B", same},
        {"the first one", no_details, "A;Z;B;Z;", "A;B;Z;"},
        {"no separator behind", no_details, "A;Z", same},
    };

    for (const auto& [name, change, list, expected] : rows) {
        EXPECT_EQ(change(list), expected) << name;
    }
}

// When a wait for Windows Search to stop ends.
TEST(ServiceTransition, gives_up_after_a_minute_or_without_progress)
{
    const struct {
        const char* name;
        DWORD hint;     // in milliseconds
        DWORD progress; // of the check point at each query, every 250 ms
        ULONGLONG end;
    } rows[]{
        {"a hint of less than a second is none", 999, 0, 30'250},
        {"the shortest hint", 1000, 0, 1250},
        {"the longest hint", 30'000, 0, 30'250},
        {"a longer hint is none", 30'001, 0, 30'250},
        {"progress", 5000, 1, 60'000},
        {"a check point that goes down", 5000, MAXDWORD, 5250},
    };

    for (const auto& [name, hint, progress, end] : rows) {
        SERVICE_STATUS_PROCESS status{};
        status.dwCurrentState = SERVICE_PAUSED;
        status.dwCheckPoint = 100;
        status.dwWaitHint = hint;
        constexpr ULONGLONG start = 0xFFFFFF00; // soon more than 32 bits
        ULONGLONG now = start;
        service_transition transition{SERVICE_STOPPED, status, now};
        auto verdict = service_transition::verdict::wait;
        while (verdict == service_transition::verdict::wait) {
            now += 250;
            status.dwCurrentState = SERVICE_STOP_PENDING; // after 250 ms, which is progress too
            status.dwCheckPoint += progress;
            verdict = transition.observe(status, now);
        }
        EXPECT_EQ(transition.elapsed(now), end) << name;
        status.dwCurrentState = SERVICE_STOPPED;
        EXPECT_EQ(transition.observe(status, now), service_transition::verdict::reached) << name;
    }
}

TEST(RegistryValue, is_a_text_only_if_it_ends_like_one)
{
    const struct {
        DWORD type;
        std::string data;
        std::optional<std::wstring> text;
    } rows[]{
        {REG_SZ, {"a\0\0\0", 4}, L"a"},
        {REG_EXPAND_SZ, {"a\0\0\0", 4}, L"a"},
        {REG_SZ, {}, L""},
        {REG_SZ, {"\0\0", 2}, L""},
        {REG_SZ, {"a\0\0\0\0\0", 6}, std::wstring{L"a\0", 2}},
        {REG_SZ, {"a\0", 2}, std::nullopt},
        {REG_SZ, {"a\0\0", 3}, std::nullopt},
        {REG_BINARY, {"a\0\0\0", 4}, std::nullopt},
    };

    for (const auto& [type, data, text] : rows) {
        EXPECT_EQ((registry_value{type, data}.wide_text()), text) << testing::PrintToString(data) << type;
    }
    EXPECT_EQ((registry_value{REG_BINARY, {"ab\0c", 4}}.text()), "ab");
}

TEST(Scripts, quote_every_path)
{
    using namespace controlled_upgrade;
    const context upgrade{
        .product_directory = L"C:\\It's", .workspace = L"W:\\'", .session_id = 7, .user_sid = L"S"};
    const std::wstring archive = L"'C:\\a''b'";

    const struct {
        const char* name;
        std::wstring script;
        std::vector<std::wstring> literals;
    } rows[]{
        {"capture", capture_script(L"C:\\a'b"), {L"OpenRead(" + archive + L")"}},
        {"register",
         registration_script(L"C:\\a'b", L"C:\\It's"),
         {L"OpenRead(" + archive + L")", L"-Path " + archive + L" -ExternalLocation 'C:\\It''s' -Force"}},
        {"remove", removal_script(L"C:\\a'b"), {L"OpenRead(" + archive + L")"}},
        {"folders", capture_folders_script(upgrade), {LR"(-LiteralPath 'W:\''\output\folders.xml')"}},
        {"restore",
         restore_runtime_script(upgrade, true),
         {LR"($file='W:\''\output\folders.xml';)",
          LR"(; Start-Process -FilePath 'C:\It''s\Quorbel.Kindra.HelperService.exe'; )"
          LR"(Start-Process -FilePath 'C:\It''s\Quorbel.SystemTray.exe'; )",
          L"SessionId -eq 7 }"}},
        {"what's new",
         whats_new_script(upgrade),
         {LR"(Start-Process -FilePath 'C:\It''s\Quorbel.exe' -ArgumentList '--open-tab=what-new')"}},
        {"recover", recovery_script({L"C:\\a'b", L"D:\\c"}), {LR"(in @('C:\a''b','D:\c')))"}},
    };

    for (const auto& [name, script, literals] : rows) {
        for (const std::wstring& literal : literals) {
            EXPECT_NE(script.find(literal), std::wstring::npos) << name << testing::PrintToString(script);
        }
    }
    EXPECT_EQ(restore_runtime_script(upgrade, false).find(L"HelperService"), std::wstring::npos);
    EXPECT_EQ(quote_powershell_literal(L"'`$(\"\u2018\u2019\")\n"), L"'''`$(\"\u2018\u2019\")\n'");
}

TEST(RecoveryTask, has_a_name_of_ours)
{
    const std::wstring task = L"QBL-EarlyRecovery-{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    EXPECT_TRUE(early_upgrade::is_recovery_task(task));
    for (const std::wstring& other :
         {task.substr(1), task + L'0', L'q' + task.substr(1), task.substr(0, 55) + L'\\'}) {
        EXPECT_FALSE(early_upgrade::is_recovery_task(other)) << testing::PrintToString(other);
    }
}

TEST(Path, begins_with_a_drive_or_a_server)
{
    EXPECT_TRUE(is_absolute_path(LR"(\\server\share)"));
    EXPECT_FALSE(is_absolute_path(L"C:a"));
    EXPECT_EQ(parent_folder(LR"(C:\Quorbel.exe)"), LR"(C:\)");
    EXPECT_EQ(normalized_folder(LR"(C:\..\Apps\..)"), LR"(C:\)");
    EXPECT_EQ(normalized_folder(L"//server/share//a.b/"), LR"(\\server\share\a.b)");
}

TEST(Path, is_parsed_like_the_standard_library)
{
    // Random paths below a fixed root, since standard libraries differ in how they parse roots.
    std::mt19937 random{7}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same paths every time
    for (int i = 0; i != 20'000; ++i) {
        std::wstring text = random() % 2 == 0 ? LR"(C:\a)" : L"a";
        for (auto left = random() % 12; left != 0; --left) {
            text += L"\\/...a \u00E9"[random() % 8];
        }
        const std::filesystem::path path{text};
        std::filesystem::path normal = path.lexically_normal();
        if (!normal.has_filename() && normal.has_parent_path()) {
            normal = normal.parent_path();
        }
        SCOPED_TRACE(testing::PrintToString(text));
        ASSERT_EQ(is_absolute_path(text), path.is_absolute());
        ASSERT_EQ(file_name(text), path.filename().wstring());
        ASSERT_EQ(file_extension(text), path.extension().wstring());
        ASSERT_EQ(parent_folder(text), path.parent_path().wstring());
        ASSERT_EQ(normalized_folder(text), normal.make_preferred().wstring());
    }
}

TEST(PackageName, has_nothing_that_needs_quoting)
{
    EXPECT_TRUE(is_package_name(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-"));
    for (const wchar_t other : std::wstring{L" _\\/'\"*;\u00E4\u0660\u2019\u212A\uFF21"}) {
        EXPECT_FALSE(is_package_name(std::wstring{L"Icon"} + other)) << testing::PrintToString(other);
    }
}

} // namespace
} // namespace custom_actions
