// The library's decisions: its pure functions, by rows of plain data, and what it makes of answers that
// Windows seldom gives.

#include "custom_actions/common/export_boundary.h"
#include "custom_actions/common/path.h"
#include "custom_actions/common/registry_key.h"
#include "custom_actions/common/system_directory.h"
#include "custom_actions/common/version_check.h"
#include "custom_actions/packages/msix_package.h"
#include "custom_actions/packages/powershell.h"
#include "custom_actions/processes/inspection_identity.h"
#include "custom_actions/processes/module_pattern.h"
#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/processes/program_tables.h"
#include "custom_actions/processes/token.h"
#include "custom_actions/search/transition.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_lists.h"
#include "custom_actions/upgrade/early_close.h"
#include "custom_actions/upgrade/maintenance_key.h"
#include "custom_actions/upgrade/recovery_task.h"
#include "custom_actions/upgrade/rollback_plan.h"
#include "custom_actions/upgrade/scripts.h"
#include "custom_actions/upgrade/upgrade_packages.h"
#include "support/real_session.h"
#include "support/registry_sandbox.h"
#include "tests/support/faults.h"
#include "tests/support/test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

namespace fs = std::filesystem;
using namespace early_upgrade;
using namespace std::string_literals;
using namespace test_support;
using namespace testing;

constexpr word INVALID_HANDLE = ~word{0};

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

TEST(ModulePattern, matches_the_whole_name_in_any_case)
{
    EXPECT_TRUE(matches_module_pattern(L"QUORBEL.WINDOWORGANIZER.x64.dll.DLL", HOOK_MODULES[0]));
    EXPECT_TRUE(matches_module_pattern(L"Quorbel.WindowOrganizer.dll", HOOK_MODULES[0]));
    EXPECT_FALSE(matches_module_pattern(L"Quorbel.WindowOrganizer.dll.bak", HOOK_MODULES[0]));
    EXPECT_FALSE(matches_module_pattern(L"My.Quorbel.WindowOrganizer.dll", HOOK_MODULES[0]));
}

TEST(PropertyLists, gain_and_lose_the_extra_properties)
{
    EXPECT_EQ(with_infotip_extra("prop:A"), "prop:A;System.Calendar.Location");
    EXPECT_FALSE(with_infotip_extra(""));
    EXPECT_FALSE(with_infotip_extra("prop:MySystem.Calendar.LocationToo"));
    EXPECT_EQ(without_infotip_extra("A;System.Calendar.Location;B"), "A;B");
    EXPECT_EQ(without_infotip_extra("System.Calendar.Location;B"), "B");
    EXPECT_EQ(without_infotip_extra("System.Calendar.Location"), "");
    const auto with_z = [](const std::string& list) { return with_full_details_extra(list, "Z"); };
    EXPECT_EQ(with_z("prop:System.PropGroup.Description;A"), "prop:System.PropGroup.Description;Z;A");
    EXPECT_FALSE(with_z("prop:A;B")) << "no anchor";
    EXPECT_FALSE(with_z("System.PropGroup.Description;A;Z"));
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
    EXPECT_EQ(waited(30'000, 0), 30'250U) << "the longest hint";
    EXPECT_EQ(waited(30'001, 0), 30'250U) << "a longer hint is none";
    EXPECT_EQ(waited(5000, 1), 60'000U) << "progress";
    EXPECT_EQ(waited(5000, MAXDWORD), 5250U) << "a check point that goes down";
}

TEST(RegistryValue, is_a_text_only_if_it_ends_like_one)
{
    const auto text = [](const std::string& data, DWORD type = REG_SZ) {
        return registry_value{type, data}.wide_text();
    };
    EXPECT_EQ(text("a\0\0\0"s), L"a");
    EXPECT_EQ(text("a\0\0\0"s, REG_EXPAND_SZ), L"a");
    EXPECT_EQ(text(""), L"");
    EXPECT_EQ(text("\0\0"s), L"");
    EXPECT_EQ(text("a\0\0\0\0\0"s), L"a\0"s);
    EXPECT_FALSE(text("a\0"s));
    EXPECT_FALSE(text("a\0\0"s));
    EXPECT_FALSE(text("a\0\0\0"s, REG_BINARY));
    EXPECT_EQ((registry_value{REG_BINARY, "ab\0c"s}.text()), "ab");
}

TEST(Scripts, quote_every_path)
{
    const context upgrade{
        .product_directory = L"C:\\It's", .workspace = L"W:\\'", .session_id = 7, .user_sid = L"S"};
    const std::wstring restore = restore_runtime_script(upgrade, true);
    EXPECT_THAT(restore, HasSubstr(LR"($file='W:\''\output\folders.xml';)"));
    EXPECT_THAT(restore, HasSubstr(LR"( -FilePath 'C:\It''s\Quorbel.Kindra.HelperService.exe'; Start)"));
    EXPECT_THAT(restore, HasSubstr(LR"(; Start-Process -FilePath 'C:\It''s\Quorbel.SystemTray.exe'; )"));
    EXPECT_THAT(restore, HasSubstr(L"SessionId -eq 7 }"));
    EXPECT_THAT(restore_runtime_script(upgrade, false), Not(HasSubstr(L"HelperService")));
    const std::wstring registration = registration_script(L"C:\\a'b", L"C:\\It's");
    EXPECT_THAT(registration, HasSubstr(LR"(OpenRead('C:\a''b'))"));
    EXPECT_THAT(registration, HasSubstr(LR"( -Path 'C:\a''b' -ExternalLocation 'C:\It''s' -Force)"));
    EXPECT_THAT(capture_script(L"C:\\a'b"), HasSubstr(LR"(OpenRead('C:\a''b'))"));
    EXPECT_THAT(removal_script(L"C:\\a'b"), HasSubstr(LR"(OpenRead('C:\a''b'))"));
    EXPECT_THAT(capture_folders_script(upgrade), HasSubstr(LR"(-LiteralPath 'W:\''\output\folders.xml')"));
    EXPECT_THAT(
        whats_new_script(upgrade), HasSubstr(LR"('s\Quorbel.exe' -ArgumentList '--open-tab=what-new')"));
    EXPECT_THAT(recovery_script({L"C:\\a'b", L"D:\\c"}), HasSubstr(LR"(in @('C:\a''b','D:\c')))"));
    EXPECT_EQ(quote_powershell_literal(L"'`$(\"\u2018\u2019\")\n"), L"'''`$(\"\u2018\u2019\")\n'");
}

TEST(PackageName, has_nothing_that_needs_quoting)
{
    EXPECT_TRUE(is_package_name(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-"));
    for (const wchar_t other : L" _\\/'\"*;\u00E4\u0660\u2019\u212A\uFF21"s) {
        EXPECT_FALSE(is_package_name(L"Icon"s + other)) << PrintToString(other);
    }
}

TEST(RecoveryTask, has_a_name_of_ours_and_leaves_one_program_out)
{
    const std::wstring task = L"QBL-EarlyRecovery-{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    EXPECT_TRUE(is_recovery_task(task));
    EXPECT_FALSE(is_recovery_task(task.substr(1)));
    EXPECT_FALSE(is_recovery_task(task + L'0'));
    EXPECT_FALSE(is_recovery_task(L'q' + task.substr(1)));
    EXPECT_FALSE(is_recovery_task(task.substr(0, 55) + L'\\'));
    EXPECT_FALSE(is_started_again(L"C:\\quorbel.AutoTagging.Service.EXE"));
    EXPECT_TRUE(is_started_again(L"C:\\Quorbel.AutoTagging.Service.exe\\Quorbel.exe"));
}

TEST(RollbackPlan, follows_the_markers)
{
    const auto plan = [](std::wstring_view markers) {
        return plan_rollback(
            [&](const wchar_t* name) { return markers.find(name) != std::wstring_view::npos; });
    };
    EXPECT_EQ(plan(L"packages-touched"), (rollback_plan{false, false, false}));
    EXPECT_EQ(plan(L"backup-complete packages-touched"), (rollback_plan{true, false, false}));
    EXPECT_EQ(plan(L"backup-complete shutdown-started"), (rollback_plan{false, false, true}));
    EXPECT_EQ(plan(L"shutdown-started packages-touched"), (rollback_plan{false, true, true}));
}

TEST(Context, is_parsed_from_valid_data_only)
{
    const std::wstring guid = L"{0F1E2D3C-4B5A-6978-8796-a5b4c3d2e1f0}";
    const context loaded =
        load_context(format_context(L"C:/It's [1] \u00C4\u4E2D/", 4294967295, L"S-1-5-21-1-2-3-1001", guid));
    EXPECT_EQ(loaded.workspace, windows_directory() + LR"(\Temp\QBL-upgrade-)" + guid);
    EXPECT_EQ(
        format_context(loaded.product_directory, loaded.session_id, loaded.user_sid, L"G"),
        L"C:\\It's [1] \u00C4\u4E2D|4294967295|S-1-5-21-1-2-3-1001|G");
    const auto refusal = [&](std::wstring start, const std::wstring& transaction) {
        return thrown_by([&] { load_context(start + transaction); });
    };
    const std::string required = "An interactive user and absolute product directory are required";
    const std::string invalid = "Invalid upgrade transaction data";
    EXPECT_EQ(refusal(L"C:\\a|1|S-1-5-18|", guid + L"|b"), invalid);
    EXPECT_EQ(refusal(L"C:\\a||S-1-5-18|", guid), invalid);
    EXPECT_EQ(refusal(L"C:\\a|-1|S-1-5-18|", guid), invalid);
    EXPECT_EQ(refusal(L"C:\\a|1|S-1-5-18|", L"{}"), invalid);
    EXPECT_EQ(refusal(L"C:\\a|1|S-1-5-18|", LR"(..\..\..\..\..\..\..\..\..\..\..\Suite)"), invalid);
    EXPECT_EQ(refusal(L"C:\\a|1|nobody|", guid), "Invalid upgrade user SID (1337)");
    EXPECT_EQ(refusal(L"C:\\a|4294967296|S-1-5-18|", guid), "stoul argument out of range");
    EXPECT_EQ(refusal(L"C:\\a|0|S-1-5-18|", guid), required);
    EXPECT_EQ(refusal(L"a\\b|1|S-1-5-18|", guid), required);
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

TEST(VersionCheck, calls_an_upgrade_minor_if_the_first_two_numbers_stay)
{
    const real_session session;
    const auto check = [&](const wchar_t* installed, const wchar_t* offered) {
        MsiSetPropertyW(session.handle(), L"INSTALLED_APP_VERSION", installed);
        MsiSetPropertyW(session.handle(), L"ProductVersion", offered);
        classify_upgrade({session.handle(), L"check"});
        const auto end = session.messages().end();
        const std::wstring minor = read_property(session.handle(), L"IS_MINOR_UPGRADE");
        return end[-2].text.substr(22) + end[-1].text.substr(21) + minor;
    };
    EXPECT_EQ(check(L"1.4.1.7", L"1.4.2.0"), L"New: 1.4.2.0 Old: 1.4.1.7 Detected MINOR upgrade.1");
    EXPECT_EQ(check(L"1.4.9.9", L"1.5"), L"New: 1.5.0.0 Old: 1.4.9.9 Detected MAJOR/MODERATE upgrade.");
    EXPECT_EQ(check(L"1.4", L"1.3"), L"New: 1.3.0.0 Old: 1.4.0.0 Detected MAJOR/MODERATE upgrade.");
    EXPECT_EQ(check(L"", L"0.1.20"), L"New: 0.1.20.0 Old: 0.1.16.0 Detected MINOR upgrade.1");
    EXPECT_EQ(check(L"1.4", L"2.4"), L"New: 2.4.0.0 Old: 1.4.0.0 Detected MAJOR/MODERATE upgrade.");
}

TEST(StrictListing, ignores_an_ended_process_and_throws_if_one_cannot_be_read)
{
    const auto thrown = [](DWORD code, unsigned times) {
        const auto read = [] { process_has_module(GetCurrentProcessId(), {}, listing::strict); };
        return thrown_with("CreateToolhelp32Snapshot", fail_with(INVALID_HANDLE, code, times), read);
    };
    const std::string unstable = with_pid("Unstable modules for PID ", GetCurrentProcessId()) + " (24)";
    EXPECT_EQ(thrown(ERROR_INVALID_PARAMETER, 1), "");
    EXPECT_EQ(thrown(ERROR_BAD_LENGTH, 2), "");
    EXPECT_EQ(thrown(ERROR_BAD_LENGTH, 3), unstable);
}

TEST(SessionUser, gives_the_linked_token_if_the_elevation_is_wrong_and_is_never_kept)
{
    const auto thrown = [](int elevation, const std::function<void()>& call) {
        const auto no_linked_one = [=](HANDLE, int what, int* found) -> std::optional<BOOL> {
            if (what == TokenUser) {
                return std::nullopt;
            }
            SetLastError(ERROR_NO_SUCH_LOGON_SESSION);
            *found = elevation;
            return what == TokenElevationType;
        };
        return thrown_with("GetTokenInformation", no_linked_one, call);
    };
    const context upgrade = load_context(new_upgrade_data(L"C:\\Suite"));
    const auto as_owner = [] { const host_owner_impersonation owner{GetCurrentProcessId(), 0}; };
    const auto as_user = [&] { interactive_user_token(upgrade); };
    EXPECT_EQ(thrown(TokenElevationTypeDefault, as_user), "");
    EXPECT_EQ(thrown(TokenElevationTypeFull, as_user), "Cannot obtain unelevated interactive token (1312)");
    EXPECT_EQ(thrown(TokenElevationTypeDefault, as_owner), "");
    EXPECT_EQ(thrown(TokenElevationTypeLimited, as_owner), "Cannot inspect elevated host owner (1312)");
    const auto keep = fail_with(FALSE, ERROR_CAN_NOT_COMPLETE); // 1003
    EXPECT_EXIT(thrown_with("SetThreadToken", keep, as_owner), ExitedWithCode(1003), "");
}

TEST(SessionUser, may_have_a_long_identity)
{
    const auto long_sid = [](HANDLE, int, void*, DWORD size, DWORD* needed) -> std::optional<BOOL> {
        *needed = sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE;
        return size < *needed ? std::optional{FALSE} : std::nullopt;
    };
    const auto owner = [] { process_user_sid(GetCurrentProcess(), ""); };
    EXPECT_EQ(thrown_with("GetTokenInformation", long_sid, owner), "");
}

TEST(MaintenanceKey, is_live_while_its_own_process_runs)
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const auto expect = [](bool live) { return [live] { EXPECT_EQ(guard_is_live(), live); }; };
    upgrade_guard(true);
    EXPECT_EQ(thrown_with("OpenProcess", fail_with(0, ERROR_ACCESS_DENIED), expect(true)), "");
    EXPECT_EQ(thrown_with("OpenProcess", fail_with(0, ERROR_INVALID_PARAMETER), expect(false)), "");
    // A process that has ended, but is still open somewhere.
    EXPECT_EQ(thrown_with("WaitForSingleObject", fail_with(WAIT_OBJECT_0, 0), expect(false)), "");
    constexpr const wchar_t* key = LR"(SOFTWARE\Brenmoor\Quorbel\InstallerMaintenance)";
    plant_value(HKEY_LOCAL_MACHINE, key, L"Created", std::string(8, '\1'), REG_QWORD);
    EXPECT_FALSE(guard_is_live()) << "the id belongs to another process now";
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key, L"Created");
    EXPECT_FALSE(guard_is_live()) << "the key is half written";
    upgrade_guard(false);
    EXPECT_EQ(thrown_by([] { upgrade_guard(false); }), "") << "already removed";
}

TEST(Workspace, is_believed_only_if_it_is_a_folder_of_ours_and_written_to_only_without_links)
{
    const context upgrade = load_context(new_upgrade_data(L"C:\\Suite"));
    const fs::path folder = upgrade.workspace;
    fs::create_directory(folder);
    const auto found = [&] { return has_marker(upgrade, L"marker"); };
    const auto refusal = [&] { return thrown_by([&] { write_marker(upgrade, L"marker"); }); };
    const std::string link = "Cannot persist upgrade recovery state (80)";
    std::ofstream{folder / L"other"} << "somebody's";
    fs::create_hard_link(folder / L"other", folder / L"marker");
    EXPECT_EQ(refusal(), link);
    EXPECT_EQ(fs::file_size(folder / L"other"), 10U) << "it was overwritten";
    fs::remove(folder / L"other");
    EXPECT_EQ(refusal(), "");
    EXPECT_EQ(fs::file_size(folder / L"marker"), 1U) << "of an older marker";
    const auto locked = fail_with(INVALID_HANDLE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(thrown_with("CreateFileW", locked, found), "Cannot read upgrade recovery state (5)");

    std::vector<DWORD> kinds; // of what is asked for, the last one first
    const auto answer_kind = [&](HANDLE, BY_HANDLE_FILE_INFORMATION* information) {
        information->dwFileAttributes = kinds.back();
        information->nNumberOfLinks = 1;
        kinds.pop_back();
        return TRUE;
    };
    const auto expect_refusals = [&] {
        kinds = {FILE_ATTRIBUTE_REPARSE_POINT, FILE_ATTRIBUTE_DIRECTORY};
        EXPECT_EQ(refusal(), link) << "the marker is a link";
        kinds = {FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT};
        EXPECT_FALSE(found()) << "the folder is a link";
        EXPECT_FALSE(found()) << "the folder is a file";
    };
    EXPECT_EQ(thrown_with("GetFileInformationByHandle", answer_kind, expect_refusals), "");

    const wchar_t* owner = nullptr; // of the folder
    const auto answer_owner =
        [&](HANDLE, int, DWORD, PSID* sid, void*, void*, void*, PSECURITY_DESCRIPTOR* holder) {
            ConvertStringSidToSidW(owner, sid);
            *holder = *sid;
            return ERROR_SUCCESS;
        };
    const auto expect_trust = [&] {
        for (const wchar_t* sid : {L"S-1-5-18", L"S-1-5-32-544", L"S-1-5-19", L"S-1-5-32-545"}) {
            owner = sid;
            EXPECT_EQ(found(), owner == L"S-1-5-18"s || owner == L"S-1-5-32-544"s) << PrintToString(sid);
        }
        EXPECT_EQ(refusal(), "Cannot persist upgrade recovery state (3)");
    };
    EXPECT_EQ(thrown_with("GetSecurityInfo", answer_owner, expect_trust), "");
    fs::remove_all(folder);
}

} // namespace
} // namespace custom_actions::controlled_upgrade
