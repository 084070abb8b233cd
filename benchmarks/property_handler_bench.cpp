// The property handler against the bare calls for the same work, and its action in a package against a
// package with the same values as rows of its Registry table.

#include "benchmarks/benchmarks.h"
#include "benchmarks/property_handler_floor.h"
#include "benchmarks/registry_trace.h"
#include "benchmarks/scratch_package.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "support/registry_sandbox.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace benchmarks {
namespace {

using namespace custom_actions;
using test_support::registry_sandbox;

// The steps of one side, to run in this order.
struct lifecycle {
    std::function<void()> register_on_clean_hive;
    std::function<void()> register_again;
    std::function<void()> remove;
};

lifecycle our_lifecycle()
{
    const auto register_all = [] { require(register_property_handler({0, L""}), "registration failed"); };
    const auto remove_all = [] { require(remove_property_handler({0, L""}), "removal failed"); };
    return {.register_on_clean_hive = register_all, .register_again = register_all, .remove = remove_all};
}

lifecycle bare_lifecycle(const property_handler_floor& floor)
{
    return {
        .register_on_clean_hive = [&floor] { floor.register_on_clean_hive(); },
        .register_again = [&floor] { floor.register_again(); },
        .remove = [&floor] { floor.remove(); }};
}

round_of_times round_of(const lifecycle& side)
{
    return [&side] {
        return std::vector{
            milliseconds(side.register_on_clean_hive),
            milliseconds(side.register_again),
            milliseconds(side.remove)};
    };
}

// A step's registry calls, the hive after it, and its lines on standard output.
std::vector<std::string> evidence(const std::function<void()>& step)
{
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("bench-" + std::to_string(GetCurrentProcessId()) + ".txt");
    std::vector<std::string> all;
    {
        const redirected_output output{path};
        all = trace_registry_calls(step);
    }
    std::ranges::move(test_support::dump_registry(HKEY_LOCAL_MACHINE), std::back_inserter(all));
    {
        std::ifstream lines{path};
        for (std::string line; std::getline(lines, line);) {
            all.push_back(line);
        }
    }
    std::filesystem::remove(path);
    return all;
}

// Throws if the two sides do not do the same.
void compare(const lifecycle& ours, const lifecycle& floor)
{
    const auto steps = [](const lifecycle& side) {
        return std::vector{
            evidence(side.register_on_clean_hive), evidence(side.register_again), evidence(side.remove)};
    };
    const auto our_steps = steps(ours);
    const auto bare_steps = steps(floor);
    for (std::size_t step = 0; step < our_steps.size(); ++step) {
        const auto& [our, bare] = std::ranges::mismatch(our_steps[step], bare_steps[step]);
        if (our != our_steps[step].end() || bare != bare_steps[step].end()) {
            throw std::runtime_error{
                "step " + std::to_string(step + 1) + " differs; ours:\n  " +
                (our == our_steps[step].end() ? "(nothing)" : *our) + "\nfloor:\n  " +
                (bare == bare_steps[step].end() ? "(nothing)" : *bare)};
        }
    }
}

// Creates the keys that every machine has.
void plant_parents()
{
    for (const char* path : {PROPERTY_HANDLERS_KEY, R"(SOFTWARE\Classes\SystemFileAssociations)"}) {
        ansi_registry_key key;
        require(key.create(HKEY_LOCAL_MACHINE, std::string{path}, KEY_WRITE), "cannot make a key");
    }
}

// Returns our time for a registration on a clean hive.
double measure_against_floor(report& results)
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    plant_parents();
    const property_handler_floor floor;
    const lifecycle ours = our_lifecycle();
    const lifecycle bare = bare_lifecycle(floor);
    compare(ours, bare);

    std::vector<std::vector<double>> times;
    {
        const redirected_output silence{"NUL"};
        times = median_times({round_of(ours), round_of(bare)});
    }
    constexpr const char* steps[]{"registered on a clean hive", "registered again", "removed"};
    for (std::size_t step = 0; step < std::size(steps); ++step) {
        results.against_floor(
            std::string{"property handler "} + steps[step] + " / the same calls, bare",
            times[0][step],
            times[1][step],
            1.15);
    }
    return times[0][0];
}

std::wstring wide(std::string_view text)
{
    return {text.begin(), text.end()};
}

// The values that registration writes on a clean machine.
std::vector<registry_row> registered_values()
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    our_lifecycle().register_on_clean_hive();
    std::vector<registry_row> rows;
    const auto add = [&](const std::string& path, const wchar_t* name) {
        wide_registry_key key;
        registry_value value;
        require(key.open(HKEY_LOCAL_MACHINE, wide(path), KEY_READ), "a registered key is missing");
        require(key.read(name, 4096, value), "a registered value is missing");
        rows.push_back({.key = wide(path), .name = name, .text = value.wide_text().value()});
    };
    for (const std::string_view extension : PROPERTY_HANDLER_EXTENSIONS) {
        add(property_handler_path(extension), L"");
        for (const wchar_t* list : {L"FullDetails", L"PreviewDetails", L"InfoTip"}) {
            add(file_association_path(extension), list);
        }
    }
    return rows;
}

std::size_t count_on_machine(const std::vector<registry_row>& rows)
{
    return static_cast<std::size_t>(std::ranges::count_if(rows, [](const registry_row& row) {
        return test_support::planted_value(HKEY_LOCAL_MACHINE, row.key, row.name.c_str()) ==
               test_support::registry_text(row.text);
    }));
}

// Removes what the action wrote: removing a package removes only its rows.
void clear_machine()
{
    our_lifecycle().remove();
}

// Installs the package, then removes it and everything that it wrote. Throws unless it wrote exactly
// `expected` of the values.
round_of_times
installation_of(const scratch_package& package, const std::vector<registry_row>& values, std::size_t expected)
{
    return [&package, &values, expected] {
        const double time = milliseconds([&] { package.install(); });
        if (const std::size_t written = count_on_machine(values); written != expected) {
            throw std::runtime_error{
                "an installation left " + std::to_string(written) + " of the values, not " +
                std::to_string(expected) + ": it did not run, or the machine has other handlers"};
        }
        package.remove();
        clear_machine();
        return std::vector{time};
    };
}

struct installation_times {
    double smallest;
    double with_rows;
    double with_action;
    double with_other_action;
    double with_both_actions;
};

installation_times time_installations(const std::vector<registry_row>& values)
{
    const package_action action{.name = L"propertyhandler_update_registry"};
    const package_action other_action{.name = L"propertyhandler_remove_registry"}; // finds nothing to remove
    const scratch_package smallest{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A01}", {}};
    const scratch_package with_rows{
        L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A02}", {.rows = values, .actions = {}, .properties = {}}};
    const scratch_package with_action{
        L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A03}", {.rows = {}, .actions = {action}, .properties = {}}};
    const scratch_package with_other_action{
        L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A04}", {.rows = {}, .actions = {other_action}, .properties = {}}};
    const scratch_package with_both_actions{
        L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A05}",
        {.rows = {}, .actions = {other_action, action}, .properties = {}}};

    const redirected_output silence{"NUL"};
    clear_machine(); // in case an earlier run was interrupted
    const auto medians = median_times(
        {installation_of(smallest, values, 0),
         installation_of(with_rows, values, values.size()),
         installation_of(with_action, values, values.size()),
         installation_of(with_other_action, values, 0),
         installation_of(with_both_actions, values, values.size())});
    return {
        .smallest = medians[0][0],
        .with_rows = medians[1][0],
        .with_action = medians[2][0],
        .with_other_action = medians[3][0],
        .with_both_actions = medians[4][0]};
}

// The same values written by rows of a package and by the action: alone in its package, where the installer
// starts a process for it, and after another action, where that process runs already.
void measure_against_package_rows(report& results, double work_alone)
{
    const std::vector<registry_row> values = registered_values();
    const installation_times times = time_installations(values);
    const double rows = times.with_rows - times.smallest;
    const std::string count = std::to_string(values.size()) + " rows of a Registry table";
    results.against_peer(
        "its action in an installation / " + count, times.with_action - times.smallest, rows, 5);
    results.beside_peer(
        "the same, in a package with another action / " + count,
        times.with_both_actions - times.with_other_action,
        rows);
    results.beside_peer("the action's work alone, without an installation / " + count, work_alone, rows);
    results.note(
        "Installed: the smallest package in " + shown(times.smallest) + " ms, with the rows in " +
        shown(times.with_rows) + " ms, with the action in " + shown(times.with_action) +
        " ms,\nwith another action in " + shown(times.with_other_action) + " ms, with both actions in " +
        shown(times.with_both_actions) + " ms.");
}

} // namespace

void measure_property_handler(report& results)
{
    measure_against_package_rows(results, measure_against_floor(results));
}

} // namespace benchmarks
