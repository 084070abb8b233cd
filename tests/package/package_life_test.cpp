// Installs, upgrades and removes another vendor's package (toy_set.wxs) with Wine's installer. Each step must
// complete or be fully undone: the machine is compared before and after.

#include "custom_actions/search/search_service.h"
#include "package/toy_suite/toy_scheduler/state.h"
#include "support/ascii.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace test_support {
namespace {

const std::filesystem::path MAKER = LR"(C:\Program Files\Toymaker)";
const std::filesystem::path FOLDER = MAKER / L"Bob's Toys (all of them)";

std::string content(const std::filesystem::path& path)
{
    std::ostringstream read;
    read << std::ifstream{path, std::ios::binary}.rdbuf();
    return read.str();
}

// Everything on the machine that the suite changes: lines that start with their kind. Registry keys without
// values are left out.
std::set<std::string> machine(const windows_search& search)
{
    std::set<std::string> found;
    const auto add_key = [&found](const std::string& kind, HKEY root, const std::wstring& path) {
        custom_actions::registry_key_handle key;
        RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put());
        const auto lines = key ? dump_registry(key.get()) : std::vector<std::string>{};
        for (const std::string& line : lines) {
            if (!line.ends_with('\\')) {
                found.insert(kind + line);
            }
        }
    };
    add_key("handlers ", HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem)");
    add_key("lists ", HKEY_LOCAL_MACHINE, LR"(Software\Classes\SystemFileAssociations)");
    add_key("maintenance ", HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Brenmoor)");
    add_key("tasks ", HKEY_CURRENT_USER, toy_scheduler::STATE + std::wstring{LR"(\Tasks)"});
    add_key("user ", HKEY_CURRENT_USER, LR"(Software\Classes)");
    add_key("values ", HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Toymaker)"); // the package's own
    for (const auto& file : std::filesystem::recursive_directory_iterator{MAKER}) {
        if (file.path().extension() != L".in-use") { // a running program's, deleted at the next restart
            const std::size_t hash = std::hash<std::string>{}(content(file));
            found.insert("files " + file.path().filename().string() + ' ' + std::to_string(hash));
        }
    }
    for (const std::wstring& package : registered_packages()) {
        found.insert("packages " + as_ascii(package));
    }
    const DWORD start_type = custom_actions::read_search_start_type().value_or(0);
    found.insert("search " + std::to_string(search.state()) + ' ' + std::to_string(start_type));
    return found;
}

// Sums up what has changed, as in "files +2, files -1", and lists it.
std::pair<std::string, std::string>
compare(const std::set<std::string>& before, const std::set<std::string>& now)
{
    std::vector<std::string> changed;
    std::ranges::set_symmetric_difference(before, now, std::back_inserter(changed));
    std::map<std::string, int> counts;
    std::string list;
    for (const std::string& line : changed) {
        const char mark = now.contains(line) ? '+' : '-';
        ++counts[line.substr(0, line.find(' ') + 1) + mark];
        list += mark + line + '\n';
    }
    std::string sum;
    for (const auto& [kind, count] : counts) {
        sum += (sum.empty() ? "" : ", ") + kind + std::to_string(count);
    }
    return {sum, list};
}

// Runs msiexec on a package beside this program and returns its exit code and log.
std::pair<UINT, std::string> run(std::wstring order)
{
    const auto log = std::filesystem::temp_directory_path() / L"package-life.log";
    std::filesystem::remove(log);
    order.insert(order.find(L".msi") + 4, L"\" /qn /l*v \"" + log.wstring() + L'"');
    order.insert(order.find(L"toy_set"), L'"' + beside_this_program(LR"(package\)"));
    return {run_child(L"msiexec.exe " + order, std::chrono::minutes{1}).exit_code, content(log)};
}

void end_the_suite()
{
    end_programs(L"Quorbel.exe");
    end_programs(L"Quorbel.Kindra.HelperService.exe");
    end_programs(L"Quorbel.SystemTray.exe");
}

// A step of the package's life.
struct step {
    const wchar_t* order; // for msiexec
    UINT result;          // its exit code
    const char* reached;  // in the log or in the details of what has changed: proof that it did its work
    const char* changed;  // on the machine
};

// What changes, by kind of line in machine().
constexpr const char* INSTALLED = "files +13, handlers +64, lists +192, packages +8, user +3, values +2";
constexpr const char* REMOVED = "files -13, handlers -64, lists -192, packages -8, user -3, values -2";
constexpr const char* REPLACED = "files +10, files -10, packages +8, packages -8, values +2";
constexpr const char* UPGRADED = "files +10, files -10, packages +8, packages -8, values +1, values -1";
constexpr const wchar_t* UPGRADE_ELSEWHERE =
    LR"(/i toy_set-1.4.2.msi FAIL_ON_PURPOSE=1 INSTALLFOLDER="C:\Program Files\Toymaker\Elsewhere")";

// After a rollback Wine has unregistered the installed product, so it is installed again, or the next version
// as if it were the first (REPLACED); after an upgrade's rollback the product's values are lost too. Wine
// also runs the actions for a failed session before the rollback, too early for the recovery task, which then
// remains.
constexpr step STEPS[]{
    {L"/i toy_set-1.4.1.msi INSTALLFOLDER=\"C:\\Bob\u201bs Toys\"", 1603, "refuse_folder", ""},
    {L"/i toy_set-1.4.1.msi FAIL_ON_PURPOSE=1", 1603, "fail_on_purpose", ""},
    {L"/i toy_set-1.4.1.msi", 0, "+packages Quorbel.Plexa 1.4.1.0 Ok", INSTALLED},
    {UPGRADE_ELSEWHERE, 1603, "fail_on_purpose", "values -2"},
    {L"/i toy_set-1.4.2.msi", 0, "+packages Quorbel.Plexa 1.4.2.0 Ok", REPLACED},
    {L"/i toy_set-1.4.2.msi REINSTALL=ALL", 0, "+packages Quorbel.Plexa 1.4.2.0 Ok", "packages +8"},
    {L"/i toy_set-1.4.1.msi", 1603, "NEWER_VERSION_FOUND = {", ""},
    {L"/i toy_set_twin-1.4.2.msi", 1603, "SAME_VERSION_FOUND = {", ""},
    {L"/x toy_set-1.4.2.msi FAIL_ON_PURPOSE=1", 1603, "fail_on_purpose", ""},
    {L"/i toy_set-1.4.2.msi", 0, "install_Quorbel.Plexa", ""},
    {L"/i toy_set-1.5.0.msi", 0, "+packages Quorbel.Plexa 1.5.0.0 Ok", UPGRADED},
    {L"/i toy_set-2.0.0.msi CANCEL_ON_PURPOSE=1", 1602, "recover_after_cancel", ""},
    {L"/i toy_set-2.0.0.msi FAIL_ON_PURPOSE=1", 1603, "fail_on_purpose", "tasks +11, values -2"},
    {L"/i toy_set-1.5.0.msi", 0, "install_Quorbel.Plexa", "values +2"},
    {L"/i toy_set-2.0.0.msi", 0, "+packages Quorbel.Plexa 2.0.0.0 Ok", UPGRADED},
    {L"/x toy_set-2.0.0.msi", 0, "-packages Quorbel.Plexa 2.0.0.0 Ok", REMOVED},
};

class PackageLife : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "installs packages: set DISPOSABLE_MACHINE if that is allowed";
        }
        remove_everything(); // of an earlier run that was killed
        // A user's file, which must stay. It keeps the folder too, without which Wine cannot restore files.
        create_directories(FOLDER);
        std::ofstream{FOLDER / L"mine.txt"} << "mine";
    }

    void TearDown() override { remove_everything(); }

    // Does nothing if the test has removed everything itself, down to the maker's folder.
    static void remove_everything()
    {
        if (machine_is_disposable() && exists(MAKER)) {
            for (const wchar_t* version : {L"1.4.1", L"1.4.2", L"1.5.0", L"2.0.0"}) {
                run(L"/x toy_set-" + std::wstring{version} + L".msi");
            }
            end_the_suite();
            remove_all(MAKER);
        }
    }
};

TEST_F(PackageLife, completes_or_undoes_each_step)
{
    const powershell_stand_in powershell;
    scheduler_stand_in scheduler;
    const windows_search search;
    search.start();
    const toy_process explorer{L"explorer.exe", L"--window=none"};
    const auto clean = machine(search);
    for (const step& step : STEPS) {
        const std::wstring order = step.order;
        SCOPED_TRACE(testing::PrintToString(order));
        std::optional<toy_process> program;
        if (order.starts_with(L"/i toy_set-2")) { // a controlled upgrade
            program.emplace(FOLDER / L"Quorbel.exe");
        }
        if (order.ends_with(L"REINSTALL=ALL")) { // a repair restores missing packages
            EXPECT_TRUE(toy_powershell::state_key{}.remove_subkey(L"Packages"));
        }
        scheduler.clear();
        const auto before = machine(search);
        const auto [result, log] = run(order);
        ASSERT_EQ(result, step.result) << log;
        const auto [sum, list] = compare(before, machine(search));
        EXPECT_EQ(sum, step.changed) << list;
        EXPECT_THAT(log + list, testing::HasSubstr(step.reached));
        if (program) {
            EXPECT_EQ(program->exit_code(), 0U) << "it must close when asked";
            EXPECT_EQ(end_programs(L"Quorbel.exe"), step.result == 1603 ? 0U : 1U) << "and be restarted";
            end_the_suite();
        }
    }
    EXPECT_EQ(compare(clean, machine(search)).second, "");
    EXPECT_EQ(powershell.refused(), L"");
    remove_all(MAKER);
}

} // namespace
} // namespace test_support
