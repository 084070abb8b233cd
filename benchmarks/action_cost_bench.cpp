// The time of each action in an installation: one package runs them all, and empty actions from another
// library. The installer reports when an action starts; its time ends when the next one starts.

#include "benchmarks/benchmarks.h"
#include "benchmarks/scratch_package.h"
#include "support/ascii.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"

#include <msi.h>
#include <msiquery.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace benchmarks {
namespace {

// An action that has nothing to do, refuses at once, or does as little as possible.
struct scenario {
    const wchar_t* function = nullptr;
    int type = IMMEDIATE;
    const char* what = nullptr;
    double most_ms = 5; // above the empty action
};

// The order matters: later ones read or remove what earlier ones write.
constexpr scenario SCENARIOS[]{
    {.function = L"check_upgrade_type", .what = "nothing installed"},
    {.function = L"log_app_control_state", .what = "not enforcing"},
    {.function = L"capture_search_state", .what = "no Windows Search", .most_ms = 10},
    {.function = L"close_and_kill_our_processes", .what = "none runs", .most_ms = 50},
    {.function = L"prepare_controlled_upgrade", .what = "refused: no older version"},
    {.function = L"early_close_upgrade", .what = "none runs"},
    {.function = L"recover_early_upgrade", .what = "no task"},
    {.function = L"notify_restart_recommended", .what = "no display"},
    {.function = L"stop_search", .type = DEFERRED_AS_SYSTEM, .what = "unchanged"},
    {.function = L"restore_search", .type = DEFERRED_AS_SYSTEM, .what = "unchanged"},
    {.function = L"restore_explorer", .type = DEFERRED_AS_SYSTEM, .what = "it runs"},
    {.function = L"propertyhandler_update_registry",
     .type = DEFERRED_AS_SYSTEM,
     .what = "64 types of a clean machine",
     .most_ms = 30},
    {.function = L"propertyhandler_remove_registry",
     .type = DEFERRED_AS_SYSTEM,
     .what = "64 types",
     .most_ms = 30},
    {.function = L"iconhandler_add_defaults_to_registry",
     .type = DEFERRED_AS_SYSTEM,
     .what = "a clean user",
     .most_ms = 15},
    {.function = L"iconhandler_remove_registry",
     .type = DEFERRED_AS_SYSTEM,
     .what = "that registration",
     .most_ms = 15},
    {.function = L"restore_built_in_new_context_menu", .type = DEFERRED_AS_SYSTEM, .what = "nothing there"},
    {.function = L"msix_install_package", .type = DEFERRED_AS_SYSTEM, .what = "refused: no data"},
    {.function = L"msix_uninstall_package",
     .type = DEFERRED_AS_SYSTEM,
     .what = "refused: no name of a package"},
    {.function = L"begin_controlled_upgrade", .type = DEFERRED_AS_SYSTEM, .what = "refused: another user"},
    {.function = L"install_upgrade_packages", .type = DEFERRED_AS_SYSTEM, .what = "refused: no backup"},
    {.function = L"finish_controlled_upgrade",
     .type = DEFERRED_AS_SYSTEM,
     .what = "refused: nothing registered"},
    {.function = L"rollback_controlled_upgrade", .type = DEFERRED_AS_SYSTEM, .what = "nothing to undo"},
};

// Throws unless the scenarios cover exactly the exports.
void require_all_exports()
{
    const test_support::loaded_library library;
    std::vector<std::string> measured;
    for (const scenario& each : SCENARIOS) {
        measured.push_back(test_support::as_ascii(each.function));
    }
    std::ranges::sort(measured);
    if (measured != test_support::pe_image{library.module()}.exported_names()) {
        throw std::runtime_error{"the scenarios do not match the library's exports"};
    }
}

package_action empty_action(const wchar_t* name, int type)
{
    return {.name = name, .function = L"empty_action", .library = L"empty_action.dll", .type = type};
}

// The scenarios between empty actions. The first two actions unpack each library and start the installer's
// process for actions, so that no scenario pays for that; the last one ends the time of the last scenario.
std::vector<package_action> all_actions()
{
    std::vector<package_action> actions{
        empty_action(L"first_of_empty", IMMEDIATE),
        {.name = L"first_of_ours", .function = L"check_upgrade_type", .type = IMMEDIATE},
        empty_action(L"empty_immediate", IMMEDIATE),
        empty_action(L"empty_deferred", DEFERRED_AS_SYSTEM)};
    for (const scenario& each : SCENARIOS) {
        actions.push_back({.name = each.function, .type = each.type + GOES_ON_WHEN_IT_FAILS});
    }
    actions.push_back(empty_action(L"end_of_deferred", DEFERRED_AS_SYSTEM));
    return actions;
}

std::vector<std::pair<std::wstring, std::wstring>> properties()
{
    std::vector<std::pair<std::wstring, std::wstring>> all{{L"msix_uninstall_package", L"no name"}};
    for (const wchar_t* phase : {L"begin", L"finish", L"rollback"}) {
        all.emplace_back(
            phase + std::wstring{L"_controlled_upgrade"},
            LR"(C:\Quorbel|1|S-1-5-18|{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A07})");
    }
    all.emplace_back(L"install_upgrade_packages", all.back().second);
    return all;
}

// Records when each action of an installation starts.
class action_times {
public:
    action_times()
    {
        require(
            MsiSetExternalUIRecord(on_message, INSTALLLOGMODE_ACTIONSTART, this, nullptr),
            "MsiSetExternalUIRecord");
    }

    ~action_times() { MsiSetExternalUIRecord(nullptr, 0, nullptr, nullptr); }

    action_times(const action_times&) = delete;
    action_times& operator=(const action_times&) = delete;

    // The time of each action. A deferred one starts twice; its second start, in the script, counts.
    [[nodiscard]] std::map<std::wstring, double> milliseconds() const
    {
        LARGE_INTEGER frequency{};
        QueryPerformanceFrequency(&frequency);
        std::map<std::wstring, double> times;
        for (std::size_t i = 0; i + 1 < starts_.size(); ++i) {
            times[starts_[i].first] = 1000.0 *
                                      static_cast<double>(starts_[i + 1].second - starts_[i].second) /
                                      static_cast<double>(frequency.QuadPart);
        }
        return times;
    }

private:
    static int CALLBACK on_message(void* self, UINT /*type*/, MSIHANDLE record)
    {
        LARGE_INTEGER now{};
        QueryPerformanceCounter(&now);
        std::array<wchar_t, 512> name{};
        auto length = static_cast<DWORD>(name.size());
        MsiRecordGetStringW(record, 1, name.data(), &length);
        // In the script Wine puts the action's data in brackets before its name.
        const std::wstring text{name.data()};
        static_cast<action_times*>(self)->starts_.emplace_back(
            text.substr(text.rfind(L']') + 1), now.QuadPart);
        return 0; // the installer handles the message as usual
    }

    std::vector<std::pair<std::wstring, LONGLONG>> starts_;
};

// Throws if the actions log nothing: Wine ignores a library that does not load.
void require_lines_of_ours(const scratch_package& package)
{
    const std::filesystem::path path = std::filesystem::temp_directory_path() / "action_costs.log";
    MsiEnableLogW(INSTALLLOGMODE_INFO, path.c_str(), 0);
    package.install();
    MsiEnableLogW(0, nullptr, 0);
    package.remove();
    std::ostringstream content;
    content << std::ifstream{path, std::ios::binary}.rdbuf();
    std::string log = content.str();
    std::erase(log, '\0'); // in case the log is UTF-16
    for (const char* line :
         {"Custom action: check_upgrade_type", "Custom action: iconhandler_remove_registry"}) {
        if (log.find(line) == std::string::npos) {
            throw std::runtime_error{std::string{"not in the installer's log: "} + line};
        }
    }
}

// The times of the first action, of the two empty ones and of each scenario.
std::vector<double> install(const scratch_package& package)
{
    std::map<std::wstring, double> taken;
    {
        const action_times times;
        package.install();
        taken = times.milliseconds();
    }
    package.remove();
    std::vector<double> all{
        taken.at(L"first_of_empty"), taken.at(L"empty_immediate"), taken.at(L"empty_deferred")};
    for (const scenario& each : SCENARIOS) {
        all.push_back(taken.at(each.function));
    }
    return all;
}

} // namespace

void measure_action_costs(report& results)
{
    require_all_exports();
    const scratch_package package{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A06}", {}, all_actions(), properties()};
    require_lines_of_ours(package);
    const std::vector<double> times = median_times({[&] { return install(package); }}).front();
    double above = 0;
    for (std::size_t i = 0; i != std::size(SCENARIOS); ++i) {
        const scenario& each = SCENARIOS[i];
        const double ours = times[i + 3];
        const double empty = each.type == IMMEDIATE ? times[1] : times[2];
        results.at_most_above(
            test_support::as_ascii(each.function) + ", " + each.what, "ms", ours, empty, each.most_ms);
        above += ours - empty;
    }
    results.note(
        "Actions: all " + std::to_string(std::size(SCENARIOS)) + " together take " + shown(above) +
        " ms more than as many empty ones. The first action of an installation,\nwhichever it is, waits " +
        shown(times[0]) + " ms for the process that the installer starts for actions.");
}

} // namespace benchmarks
