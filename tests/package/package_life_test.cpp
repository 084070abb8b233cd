// Installs, upgrades and removes another vendor's package (toy_set.wxs) with the real installer. Each step
// must complete or be fully undone: the machine is compared before and after.

#include "custom_actions/processes/process_inventory.h"
#include "custom_actions/search/search_service.h"
#include "package/toy_suite/toy_scheduler/state.h"
#include "support/ascii.h"
#include "support/child_process.h"
#include "support/disposable_machine.h"
#include "support/registry_sandbox.h"
#include "support/toy_suite.h"
#include "tests/support/powershell_stand_in.h"
#include "tests/support/scheduler_stand_in.h"
#include "tests/support/test_limit.h"
#include "tests/support/windows_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {
namespace {

using testing::HasSubstr;
using texts = std::vector<std::string>;

constexpr const wchar_t* FOLDER = LR"(C:\Program Files\Toymaker\Bob's Toys (all of them))";
constexpr const wchar_t* ELSEWHERE = LR"(C:\Toys elsewhere)"; // the target of an upgrade that fails
constexpr const wchar_t* HANDLERS =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\PropertySystem\PropertyHandlers)";

std::string content(const std::filesystem::path& path)
{
    std::ostringstream read;
    read << std::ifstream{path, std::ios::binary}.rdbuf();
    return read.str();
}

texts files()
{
    texts found;
    std::error_code none;
    for (const wchar_t* folder : {FOLDER, ELSEWHERE}) {
        for (const auto& file : std::filesystem::recursive_directory_iterator{folder, none}) {
            if (file.path().extension() == L".in-use") {
                continue; // the file of a running program, deleted at the next restart
            }
            const std::size_t hash = std::hash<std::string>{}(content(file.path()));
            found.push_back(file.path().filename().string() + ' ' + std::to_string(hash));
        }
    }
    return found;
}

// The values below a key. Keys without values are left out.
texts registry(HKEY root, const std::wstring& path)
{
    custom_actions::registry_key_handle key;
    RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put());
    texts found = key ? dump_registry(key.get()) : texts{};
    std::erase_if(found, [](const std::string& line) { return line.ends_with('\\'); });
    return found;
}

// Everything on the machine that the suite changes, by kind.
std::map<std::string, texts> machine(const windows_search& search)
{
    const std::wstring classes = LR"(Software\Classes)";
    std::map<std::string, texts> found{
        {"files", files()},
        {"property handlers", registry(HKEY_LOCAL_MACHINE, HANDLERS)},
        {"detail lists", registry(HKEY_LOCAL_MACHINE, classes + LR"(\SystemFileAssociations)")},
        {"the user's classes", registry(HKEY_CURRENT_USER, classes)},
        {"maintenance key", registry(HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Brenmoor)")},
        {"tasks", registry(HKEY_CURRENT_USER, toy_scheduler::STATE + std::wstring{LR"(\Tasks)"})},
        {"Windows Search",
         {std::to_string(search.state()),
          std::to_string(custom_actions::read_search_start_type().value_or(0))}},
        {"packages", {}},
        {"the package's own values", registry(HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Toymaker)")}};
    for (const std::wstring& package : registered_packages()) {
        found["packages"].push_back(as_ascii(package));
    }
    return found;
}

bool engine_is_wine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

bool runs(const std::wstring& program)
{
    const std::array<std::wstring_view, 1> images{program};
    return !custom_actions::find_processes_by_image(images, custom_actions::listing::strict).empty();
}

// A step of the package's life.
struct step {
    const wchar_t* order; // for msiexec: the verb, the package and properties
    UINT result;          // msiexec's exit code
    const char* reached;  // the log must contain it: proof of the expected failure
    const char* version;  // installed afterwards: "" for none, nullptr for no change at all
};

constexpr const char* REFUSED = "refuse_folder";
constexpr step STEPS[]{
    {L"/i toy_set-1.4.1 INSTALLFOLDER=\"C:\\Toys [1]\"", 1603, REFUSED, nullptr},
    {L"/i toy_set-1.4.1 INSTALLFOLDER=\"C:\\Bob\u201bs Toys\"", 1603, REFUSED, nullptr},
    {L"/i toy_set-1.4.1 FAIL_ON_PURPOSE=1", 1603, "fail_on_purpose", nullptr},
    {L"/i toy_set-1.4.1", 0, "install_Quorbel.Plexa", "1.4.1"},
    {L"/x toy_set-1.4.1 FAIL_ON_PURPOSE=1", 1603, "fail_on_purpose", nullptr},
    {L"/i toy_set-1.4.2 INSTALLFOLDER=\"C:\\Toys elsewhere\" FAIL_ON_PURPOSE=1",
     1603,
     "fail_on_purpose",
     nullptr},
    {L"/i toy_set-1.4.2", 0, "install_Quorbel.Plexa", "1.4.2"},
    {L"/i toy_set-1.4.2 REINSTALL=ALL", 0, "install_Quorbel.Plexa", "1.4.2"},
    {L"/i toy_set-1.4.1", 1603, "NEWER_VERSION_FOUND = {", nullptr},
    {L"/i toy_set_twin-1.4.2", 1603, "SAME_VERSION_FOUND = {", nullptr},
    {L"/i toy_set-1.5.0", 0, "install_Quorbel.Plexa", "1.5.0"},
    {L"/i toy_set-2.0.0 CANCEL_ON_PURPOSE=1", 1602, "recover_after_cancel", nullptr},
    {L"/i toy_set-2.0.0 FAIL_ON_PURPOSE=1", 1603, "fail_on_purpose", nullptr},
    {L"/i toy_set-2.0.0", 0, "finish_controlled_upgrade", "2.0.0"},
    {L"/x toy_set-2.0.0", 0, "remove_Quorbel.Plexa", ""},
};

class PackageLife : public testing::Test {
protected:
    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "installs packages: set DISPOSABLE_MACHINE if that is allowed";
        }
        allow_test(std::chrono::minutes{8});
        clean_up(); // an earlier run may have been killed
        // A user's file, which must stay. It keeps the folder too, without which Wine cannot restore files.
        std::filesystem::create_directories(FOLDER);
        std::ofstream{std::filesystem::path{FOLDER} / L"mine.txt"} << "mine";
        powershell.emplace();
        scheduler.emplace();
        search.emplace();
        search->start();
    }

    void TearDown() override
    {
        if (powershell) {
            EXPECT_EQ(powershell->refused(), L"");
            clean_up();
        }
    }

    void clean_up()
    {
        for (const wchar_t* version : {L"1.4.1", L"1.4.2", L"1.5.0", L"2.0.0"}) {
            install(std::wstring{L"/x toy_set-"} + version);
        }
        end_the_suite();
        std::filesystem::remove_all(std::filesystem::path{FOLDER}.parent_path());
    }

    static void end_the_suite()
    {
        for (const wchar_t* program : PROGRAMS) {
            end_programs(program);
        }
    }

    // Runs msiexec and returns its exit code; `log` is then its log.
    UINT install(const std::wstring& order)
    {
        const std::size_t name = order.find(L' ') + 1;
        const std::size_t properties = std::min(order.find(L' ', name), order.size());
        const std::wstring package =
            beside_this_program(LR"(package\)" + order.substr(name, properties - name) + L".msi");
        const auto path = std::filesystem::temp_directory_path() / L"package-life.log";
        std::filesystem::remove(path);
        const std::wstring command_line = L"msiexec.exe " + order.substr(0, name) + L'"' + package +
                                          L"\" /qn /l*v \"" + path.wstring() + L'"' +
                                          order.substr(properties);
        const UINT result = run_child(command_line, std::chrono::minutes{2}).exit_code;
        log = content(path);
        return result;
    }

    // After a rolled-back upgrade, Wine has unregistered the old product with its values. Wine also runs the
    // actions for a failed session before the rollback, too early for the recovery task, which then remains.
    void repair_after_wine(const std::wstring& installed)
    {
        scheduler->clear();
        ASSERT_EQ(install(L"/i " + installed), 0U) << log;
    }

    static constexpr const wchar_t* PROGRAMS[]{
        L"Quorbel.exe", L"Quorbel.Kindra.HelperService.exe", L"Quorbel.SystemTray.exe"};

    std::optional<powershell_stand_in> powershell;
    std::optional<scheduler_stand_in> scheduler;
    std::optional<windows_search> search;
    std::string log;
};

// Compares all kinds but the `ignored` ones.
void expect_same(
    const std::map<std::string, texts>& now, const std::map<std::string, texts>& before, const texts& ignored)
{
    for (const auto& [where, what] : before) {
        if (std::ranges::find(ignored, where) == ignored.end()) {
            EXPECT_EQ(now.at(where), what) << where;
        }
    }
}

void expect_version(
    const std::map<std::string, texts>& now,
    const std::map<std::string, texts>& clean,
    const std::string& version)
{
    EXPECT_THAT(now.at("packages"), testing::SizeIs(8));
    EXPECT_THAT(now.at("packages"), testing::Each(testing::EndsWith(version + ".0 Ok")));
    EXPECT_THAT(content(std::filesystem::path{FOLDER} / L"release_notes.txt"), HasSubstr(version));
    EXPECT_NE(now.at("property handlers"), clean.at("property handlers"));
    EXPECT_NE(now.at("the user's classes"), clean.at("the user's classes"));
    EXPECT_EQ(now.at("tasks"), texts{});
    EXPECT_EQ(now.at("Windows Search"), clean.at("Windows Search"));
}

TEST_F(PackageLife, completes_or_undoes_each_step)
{
    const toy_process explorer{L"explorer.exe", L"--window=none"};
    const auto clean = machine(*search);
    EXPECT_THAT(clean.at("files"), testing::SizeIs(1));
    std::wstring installed; // the package
    for (const step& step : STEPS) {
        SCOPED_TRACE(step.order);
        const std::wstring order = step.order;
        const bool controlled = order.starts_with(L"/i toy_set-2");
        std::optional<toy_process> program;
        if (controlled) {
            program.emplace(std::wstring{FOLDER} + L"\\Quorbel.exe");
        }
        if (order.ends_with(L"REINSTALL=ALL")) { // a repair restores missing packages
            EXPECT_TRUE(toy_powershell::state_key{}.remove_subkey(L"Packages"));
        }
        const auto before = machine(*search);
        ASSERT_EQ(install(order), step.result) << log;
        EXPECT_THAT(log, HasSubstr(step.reached));
        const bool fails = order.ends_with(L"FAIL_ON_PURPOSE=1");
        if (step.result == 1603 && !fails) {
            EXPECT_THAT(log, testing::Not(HasSubstr("InstallValidate")));
        }
        const bool forgotten = engine_is_wine() && fails && !installed.empty();
        const bool upgrade = forgotten && order.starts_with(L"/i");
        const auto now = machine(*search);
        if (step.version == nullptr) {
            expect_same(now, before, upgrade ? texts{"the package's own values", "tasks"} : texts{});
        } else if (*step.version == '\0') {
            expect_same(now, clean, {});
        } else {
            expect_version(now, clean, step.version);
            installed = order.substr(order.find(L' ') + 1);
        }
        if (controlled) {
            EXPECT_EQ(program->exit_code(), 0U) << "it must close when asked";
            EXPECT_EQ(runs(L"Quorbel.exe"), !forgotten) << "and be restarted";
            end_the_suite();
        }
        if (forgotten) {
            repair_after_wine(installed);
        }
    }
}

} // namespace
} // namespace test_support
