// The library's decisions: its pure functions, by rows of plain data, and what it makes of answers that
// Windows seldom gives.

#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/packages/msix_package.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/inspection_identity.h"
#include "custom_actions/processes/module_pattern.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/search/transition.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_lists.h"
#include "custom_actions/upgrade/context.h"
#include "custom_actions/upgrade/early_close.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/recovery_task.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "custom_actions/upgrade/workspace.h"
#include "support/real_session.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <array>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <string_view>

namespace custom_actions::controlled_upgrade {
namespace {

namespace fs = std::filesystem;
using namespace early_upgrade;
using namespace std::string_literals;
using namespace test_support;
using namespace testing;

std::string line(const auto& table)
{
    std::string line;
    for (const std::basic_string_view entry : table) {
        for (const auto unit : entry) {
            line += static_cast<char>(unit);
        }
        line += ' ';
    }
    return line + '\n';
}

TEST(Tables, have_these_entries)
{
    std::string all = line(PROPERTY_HANDLER_EXTENSIONS) + line(FORCE_OVERRIDE_EXTENSIONS) +
                      line(EXTENDED_DETAILS_EXTENSIONS) + line(UPGRADE_IMAGES) + line(EARLY_CLOSE_IMAGES) +
                      line(our_shell_modules) + line(UPGRADE_PACKAGES);
    for (const auto& [value, text] : DETAILS_LISTS) {
        all += line(std::array{std::string_view{value}, text});
    }
    EXPECT_EQ(
        all,
        ".arw .asm .aspx .avi .bat .bmp .c .cmd .config .cpp .cs .csv .d64 .dll .doc .docx .gif .gfie .h "
        ".heic .hpp .htm .html .ico .ini .jpeg .jpg .json .jxl .lnk .log .lnx .master .md .mov .mp4 .msi "
        ".pdf .pfx .png .prg .ppt .pptx .ps1 .rar .reg .rtf .sid .sln .svg .tif .tiff .tmp .txt .url .wav "
        ".webmanifest .webp .wma .xls .xlsx .xml .zip .mp3 \n"
        ".arw .bmp .gif .heic .ico .jpeg .jpg .tif .tiff .url .webp \n"
        ".arw .heic .jpeg .jpg .tif .tiff .webp \n"
        "Quorbel.exe Quorbel.HotkeyHandler.exe Quorbel.HotkeyHandler.Helper.exe "
        "Quorbel.Kindra.HelperService.exe Quorbel.AutoTagging.Service.exe Sorvane.Common.TagManager.exe "
        "Quorbel.Comment.exe Quorbel.Paste.exe Quorbel.Kindra.VariablesUX.exe Quorbel.MessageDialog.exe "
        "Sorvane.Common.BatchProcessor.exe Quorbel.SystemTray.exe "
        "Quorbel.ContextMenuReplacement.Controller.exe \n"
        "Quorbel.exe Sorvane.Common.TagManager.exe Quorbel.HotkeyHandler.exe "
        "Quorbel.Kindra.HelperService.exe Quorbel.AutoTagging.Service.exe Quorbel.SystemTray.exe \n"
        "Quorbel.Plexa.ShellExtension.dll Quorbel.Kindra.ShellExtension.dll "
        "Quorbel.Paste.ShellExtension.dll Quorbel.Comment.ShellExtension.dll "
        "Sorvane.Icon.ShellExtension.dll Sorvane.Rate.ShellExtension.dll Sorvane.Tag.ShellExtension.dll "
        "Sorvane.Namespace.ShellExtension.dll Sorvane.PropertyHandler.ShellExtension.dll "
        "Sorvane.IconHandler.ShellExtension.dll Quorbel.WindowOrganizer*.dll "
        "Quorbel.ContextMenuReplacement.Hook*.dll \n"
        "Sorvane.Icon.Package.msix Sorvane.Organize.Package.msix Sorvane.Tag.Package.msix "
        "Sorvane.Rate.Package.msix Quorbel.Kindra.Package.msix Quorbel.Paste.Package.msix "
        "Quorbel.Comment.Package.msix Quorbel.Plexa.Package.msix \n"
        "FullDetails prop:System.PropGroup.Description;System.Rating;System.Keywords;System.Comment;"
        "System.PropGroup.FileSystem;System.ItemNameDisplay;System.ItemType;System.ItemFolderPathDisplay;"
        "System.DateCreated;System.DateModified;System.Size;System.FileAttributes;System.OfflineAvailability;"
        "System.OfflineStatus;System.SharedWith;System.FileOwner;System.ComputerName \n"
        "PreviewDetails prop:System.ItemType;System.Comment;System.Keywords;System.Rating;System.Size \n"
        "InfoTip prop:System.ItemType;System.Keywords;System.Rating;System.Comment;System.Size \n");
}

TEST(Names, are_matched_as_a_whole)
{
    EXPECT_TRUE(matches_module_pattern(L"QUORBEL.WINDOWORGANIZER.x64.dll.DLL", HOOK_MODULES[0]));
    EXPECT_TRUE(matches_module_pattern(L"Quorbel.WindowOrganizer.dll", HOOK_MODULES[0]));
    EXPECT_FALSE(matches_module_pattern(L"Quorbel.WindowOrganizer.dll.bak", HOOK_MODULES[0]));
    EXPECT_FALSE(matches_module_pattern(L"My.Quorbel.WindowOrganizer.dll", HOOK_MODULES[0]));
    const std::wstring task = L"QBL-EarlyRecovery-{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    EXPECT_TRUE(is_recovery_task(task));
    EXPECT_FALSE(is_recovery_task(task + L'0'));
    EXPECT_FALSE(is_recovery_task(task.substr(0, 55) + L'\\'));
    EXPECT_FALSE(is_started_again(L"C:\\quorbel.AutoTagging.Service.EXE"));
    EXPECT_TRUE(is_started_again(L"C:\\Quorbel.AutoTagging.Service.exe\\Quorbel.exe"));
    EXPECT_TRUE(is_package_name(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-"));
    for (const wchar_t other : L" _\\/'\"*;\u00E4\u0660\u2019\u212A\uFF21"s) {
        EXPECT_FALSE(is_package_name(L"Icon"s + other)) << PrintToString(other);
    }
}

TEST(PropertyLists, gain_and_lose_the_extra_properties)
{
    EXPECT_FALSE(with_infotip_extra(""));
    EXPECT_FALSE(with_infotip_extra("prop:MySystem.Calendar.LocationToo"));
    EXPECT_EQ(without_infotip_extra("A;System.Calendar.Location;B"), "A;B");
    EXPECT_EQ(without_infotip_extra("System.Calendar.Location;B"), "B");
    EXPECT_EQ(without_infotip_extra("System.Calendar.Location"), "");
    EXPECT_FALSE(with_full_details_extra("prop:A;B", "Z")) << "no anchor";
    EXPECT_EQ(without_full_details_extra("A;Z;B;Z;", "Z"), "A;B;Z;");
    EXPECT_FALSE(without_full_details_extra("A;Z", "Z")) << "no separator behind";
}

// When a wait for Windows Search to stop ends.
TEST(ServiceTransition, gives_up_after_a_minute_or_without_progress)
{
    using verdict = service_transition::verdict;
    // In milliseconds; `progress` is the check point's at each query, every 250 ms.
    const auto waited = [](DWORD hint, DWORD progress) {
        SERVICE_STATUS_PROCESS status{};
        status.dwCurrentState = SERVICE_PAUSED;
        status.dwWaitHint = hint;
        ULONGLONG now = 0xFFFFFF00; // soon more than 32 bits
        service_transition transition{SERVICE_STOPPED, status, now};
        for (auto last = verdict::wait; last == verdict::wait; last = transition.observe(status, now)) {
            now += 250;
            status.dwCurrentState = SERVICE_STOP_PENDING; // after 250 ms, which is progress too
            status.dwCheckPoint += progress;
        }
        status.dwCurrentState = SERVICE_STOPPED;
        EXPECT_EQ(transition.observe(status, now), verdict::reached);
        return transition.elapsed(now);
    };
    EXPECT_EQ(waited(999, 0), 30'250U) << "a hint of less than a second is none";
    EXPECT_EQ(waited(1000, 0), 1250U) << "the shortest hint";
    EXPECT_EQ(waited(30'001, 0), 30'250U) << "a longer hint is none";
    EXPECT_EQ(waited(5000, 1), 60'000U) << "progress";
    EXPECT_EQ(waited(5000, MAXDWORD), 5250U) << "a check point that goes down";
}

TEST(RegistryValue, is_a_text_only_if_it_ends_like_one)
{
    const auto text = [](const std::string& data, DWORD type = REG_SZ) {
        return registry_value{type, data}.wide_text();
    };
    EXPECT_EQ(text("a\0\0\0"s, REG_EXPAND_SZ), L"a");
    EXPECT_EQ(text(""), L"");
    EXPECT_EQ(text("a\0\0\0\0\0"s), L"a\0"s);
    EXPECT_FALSE(text("a\0"s));
    EXPECT_FALSE(text("a\0\0"s));
    EXPECT_FALSE(text("a\0\0\0"s, REG_BINARY));
}

TEST(Scripts, quote_every_path_and_name_their_programs)
{
    const std::wstring archive = L"D:\\It's";
    const context upgrade{
        .product_directory = L"C:\\It's", .workspace = L"W:\\It's", .session_id = 7, .user_sid = L"S"};
    const std::wstring all = capture_script(archive) + removal_script(archive) +
                             registration_script(archive, upgrade.product_directory) +
                             capture_folders_script(upgrade) + restore_runtime_script(upgrade, true) +
                             whats_new_script(upgrade) + recovery_script({L"C:\\It's", L"D:\\It's"});
    EXPECT_THAT(all, Not(HasSubstr(L"It's")));
    for (const wchar_t* part :
         {LR"( -Path 'D:\It''s' -ExternalLocation 'C:\It''s' -Force)",
          LR"( -LiteralPath 'W:\It''s\output\folders.xml'$)",
          LR"($file='W:\It''s\output\folders.xml'; )",
          LR"( -FilePath 'C:\It''s\Quorbel.Kindra.HelperService.exe'; Start-Process )",
          LR"( -FilePath 'C:\It''s\Quorbel.SystemTray.exe'; )",
          L" SessionId -eq 7 }",
          LR"( -FilePath 'C:\It''s\Quorbel.exe' -ArgumentList '--open-tab=what-new')",
          LR"(in @('C:\It''s','D:\It''s')))"}) {
        EXPECT_THAT(all, HasSubstr(part));
    }
    EXPECT_THAT(restore_runtime_script(upgrade, false), Not(HasSubstr(L"HelperService")));
    EXPECT_EQ(quote_powershell_literal(L"'`$(\"\u2018\u2019\")\n"), L"'''`$(\"\u2018\u2019\")\n'");
}

TEST(Context, is_parsed)
{
    const std::wstring guid = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    const context upgrade = load_context(L"C:/It's [1]/\u00C4\u4E2D/|4294967295|S-1-5-18|" + guid);
    EXPECT_EQ(upgrade.product_directory, L"C:\\It's [1]\\\u00C4\u4E2D");
    EXPECT_EQ(upgrade.session_id, 4294967295U);
    EXPECT_EQ(upgrade.workspace, windows_directory() + LR"(\Temp\QBL-upgrade-)" + guid);
}

TEST(Path, is_parsed_like_the_standard_library)
{
    EXPECT_TRUE(is_absolute_path(LR"(\\server\share)"));
    EXPECT_EQ(normalized_folder(L"//server/share//a.b/"), LR"(\\server\share\a.b)");
    EXPECT_FALSE(is_absolute_path(L"C:a"));
    // Random paths below a fixed root, since standard libraries differ in how they parse roots.
    std::mt19937 random{7}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same paths every time
    for (int i = 0; i != 20'000; ++i) {
        std::wstring text = random() % 2 == 0 ? LR"(C:\a)" : L"a";
        for (auto left = random() % 12; left != 0; --left) {
            text += L"\\/...a \u00E9"[random() % 8];
        }
        const fs::path path{text};
        const fs::path normal = path.lexically_normal();
        const bool shorter = !normal.has_filename() && normal.has_parent_path();
        fs::path folder = shorter ? normal.parent_path() : normal;
        SCOPED_TRACE(PrintToString(text));
        ASSERT_EQ(is_absolute_path(text), path.is_absolute());
        ASSERT_EQ(file_name(text), path.filename().wstring());
        ASSERT_EQ(file_extension(text), path.extension().wstring());
        ASSERT_EQ(parent_folder(text), path.parent_path().wstring());
        ASSERT_EQ(normalized_folder(text), folder.make_preferred().wstring());
    }
}

TEST(ExportBoundary, reports_any_text_and_works_without_a_session_or_memory)
{
    const real_session session;
    const auto fail = [] { throw windows_error{"No \xC3\xA9", ERROR_ACCESS_DENIED}; };
    const auto no_memory = [](MSIHANDLE, const std::wstring&) { throw std::bad_alloc{}; };
    EXPECT_EQ(run_action(session.handle(), report_error_record, fail), 1603U);
    EXPECT_EQ(session.messages().at(0).text, L"No \xFFC3\xFFA9");
    EXPECT_EQ(run_action(0, report_upgrade_failure, fail), 1603U);
    EXPECT_EQ(run_action(0, no_memory, fail), 1603U);
    EXPECT_EQ(run_harmless_action(fail), 0U);
    const std::wstring value(5000, L'x');
    MsiSetPropertyW(session.handle(), L"LONG", value.c_str());
    EXPECT_EQ(read_property(session.handle(), L"LONG"), value);
}

TEST(StrictListing, ignores_an_ended_process_and_throws_if_one_cannot_be_read)
{
    const DWORD process = GetCurrentProcessId();
    const auto thrown = [process](DWORD code, unsigned times) {
        const auto read = [process] { process_has_module(process, {}, listing::strict); };
        return thrown_with("CreateToolhelp32Snapshot", fail_with(~word{0}, code, times), read);
    };
    EXPECT_EQ(thrown(ERROR_INVALID_PARAMETER, 1), "");
    EXPECT_EQ(thrown(ERROR_BAD_LENGTH, 2), "");
    EXPECT_EQ(thrown(ERROR_BAD_LENGTH, 3), with_pid("Unstable modules for PID ", process) + " (24)");
}

TEST(SessionUser, gives_the_linked_token_if_the_elevation_is_wrong_and_is_never_kept)
{
    int elevation = TokenElevationTypeDefault; // of the user's token, which has no linked one
    const auto answer = [&](HANDLE, int what, int* found) -> std::optional<BOOL> {
        if (what == TokenElevationType) {
            *found = elevation;
        }
        SetLastError(ERROR_NO_SUCH_LOGON_SESSION);
        return what == TokenUser ? std::nullopt : std::optional{BOOL{what == TokenElevationType}};
    };
    const import_hook tokens{GetModuleHandleW(nullptr), "GetTokenInformation", answer};
    context upgrade = own_context();
    const auto as_user = [&] { interactive_user_token(upgrade); };
    const auto as_owner = [] { const host_owner_impersonation owner{GetCurrentProcessId(), 0}; };
    EXPECT_EQ(thrown_by(as_user), "");
    EXPECT_EQ(thrown_by(as_owner), "");
    const auto keep = fail_with(FALSE, ERROR_CAN_NOT_COMPLETE); // 1003
    EXPECT_EXIT(thrown_with("SetThreadToken", keep, as_owner), ExitedWithCode(1003), "");
    elevation = TokenElevationTypeFull;
    EXPECT_EQ(thrown_by(as_user), "Cannot obtain unelevated interactive token (1312)");
    elevation = TokenElevationTypeLimited;
    EXPECT_EQ(thrown_by(as_owner), "Cannot inspect elevated host owner (1312)");
    upgrade.user_sid += L'0';
    EXPECT_EQ(thrown_by(as_user), "Interactive user changed during upgrade");
}

TEST(MaintenanceKey, is_live_while_its_own_process_runs)
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    upgrade_guard(true);
    const auto is_live = [](const char* function, auto answer) {
        const import_hook hook{GetModuleHandleW(nullptr), function, answer};
        return guard_is_live();
    };
    EXPECT_TRUE(is_live("OpenProcess", fail_with(0, ERROR_ACCESS_DENIED)));
    EXPECT_FALSE(is_live("OpenProcess", fail_with(0, ERROR_INVALID_PARAMETER)));
    EXPECT_FALSE(is_live("WaitForSingleObject", fail_with(WAIT_OBJECT_0, 0))) << "ended, but still open";
    constexpr const wchar_t* key = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
    plant_value(HKEY_LOCAL_MACHINE, key, L"Created", std::string(8, '\1'), REG_QWORD);
    EXPECT_FALSE(guard_is_live()) << "the id belongs to another process now";
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key, L"Created");
    EXPECT_FALSE(guard_is_live()) << "the key is half written";
}

TEST(Workspace, is_believed_only_if_it_is_a_folder_of_ours_and_written_to_only_without_links)
{
    context upgrade{};
    upgrade.workspace = fs::temp_directory_path() / L"workspace";
    fs::create_directory(upgrade.workspace);
    write_marker(upgrade, L"marker");
    const auto refusal = [&](const wchar_t* owner, DWORD folder, DWORD marker, DWORD links) {
        int asked = 0; // for the folder, the folder again, and the marker
        const auto information = [&](HANDLE, BY_HANDLE_FILE_INFORMATION* found) {
            found->dwFileAttributes = ++asked == 3 ? marker : folder;
            found->nNumberOfLinks = links;
            return TRUE;
        };
        const auto security = [&](HANDLE, int, DWORD, PSID* sid, void*, void*, void*, void** holder) {
            ConvertStringSidToSidW(owner, sid);
            *holder = *sid;
            return ERROR_SUCCESS;
        };
        const import_hook files{GetModuleHandleW(nullptr), "GetFileInformationByHandle", information};
        const import_hook owners{GetModuleHandleW(nullptr), "GetSecurityInfo", security};
        const bool believed = has_marker(upgrade, L"marker");
        const std::string thrown = thrown_by([&] { write_marker(upgrade, L"marker"); });
        EXPECT_EQ(believed, thrown != "Cannot persist upgrade recovery state (3)") << thrown;
        return thrown;
    };
    const wchar_t* const system = L"S-1-5-18";
    constexpr DWORD folder = FILE_ATTRIBUTE_DIRECTORY;
    constexpr DWORD link = FILE_ATTRIBUTE_REPARSE_POINT;
    EXPECT_EQ(refusal(system, folder, 0, 1), "");
    EXPECT_EQ(refusal(L"S-1-5-32-544", folder, 0, 1), "") << "the administrators";
    EXPECT_EQ(refusal(L"S-1-5-19", folder, 0, 1), "Cannot persist upgrade recovery state (3)");
    EXPECT_EQ(refusal(system, 0, 0, 1), "Cannot persist upgrade recovery state (3)") << "not a folder";
    EXPECT_EQ(refusal(system, folder | link, 0, 1), "Cannot persist upgrade recovery state (3)");
    EXPECT_EQ(refusal(system, folder, link, 1), "Cannot persist upgrade recovery state (80)");
    EXPECT_EQ(refusal(system, folder, 0, 2), "Cannot persist upgrade recovery state (80)");
    fs::remove_all(upgrade.workspace);
}

} // namespace
} // namespace custom_actions::controlled_upgrade
