// The property handler's action in a package, against a package with the same values as rows of its Registry
// table.

#include "benchmarks/benchmarks.h"
#include "benchmarks/scratch_package.h"
#include "custom_actions/common/registry_key.h"
#include "custom_actions/shell_registration/file_type_tables.h"
#include "custom_actions/shell_registration/property_handler.h"
#include "support/registry_sandbox.h"

#include <algorithm>
#include <stdexcept>

namespace benchmarks {
namespace {

using test_support::planted_value;
using test_support::registry_sandbox;

void register_all()
{
    require(custom_actions::register_property_handler({0, L""}), "registration failed");
}

void remove_all()
{
    require(custom_actions::remove_property_handler({0, L""}), "removal failed");
}

// The time of a registration on a clean hive, without an installation.
double time_work_alone()
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    const auto one_round = [] {
        const std::vector times{milliseconds(register_all)};
        remove_all();
        return times;
    };
    return median_times({one_round})[0][0];
}

std::wstring wide(std::string_view text)
{
    return {text.begin(), text.end()};
}

// The values that registration writes on a clean machine.
std::vector<registry_row> registered_values()
{
    const registry_sandbox machine{HKEY_LOCAL_MACHINE};
    register_all();
    std::vector<registry_row> rows;
    const auto add = [&](const std::string& path, const wchar_t* name) {
        const std::string bytes = planted_value(HKEY_LOCAL_MACHINE, wide(path), name).value();
        rows.push_back(
            {.key = wide(path), .name = name, .text = reinterpret_cast<const wchar_t*>(bytes.c_str())});
    };
    for (const std::string_view extension : custom_actions::PROPERTY_HANDLER_EXTENSIONS) {
        add(custom_actions::property_handler_path(extension), L"");
        for (const wchar_t* list : {L"FullDetails", L"PreviewDetails", L"InfoTip"}) {
            add(custom_actions::file_association_path(extension), list);
        }
    }
    return rows;
}

// Installs the package, then removes it and everything that its action wrote, since removing a package
// removes only its rows. Throws unless it wrote all of the values or, if it has none to write, none.
round_of_times
installation_of(const scratch_package& package, const std::vector<registry_row>& values, bool writes_them)
{
    return [&package, &values, writes_them] {
        const double time = milliseconds([&] { package.install(); });
        if (!std::ranges::all_of(values, [&](const registry_row& row) {
                return writes_them == (planted_value(HKEY_LOCAL_MACHINE, row.key, row.name.c_str()) ==
                                       test_support::registry_text(row.text));
            })) {
            throw std::runtime_error{"an action did not run, or the machine has other handlers"};
        }
        package.remove();
        remove_all();
        return std::vector{time};
    };
}

} // namespace

// The action alone in its package, where the installer starts a process for it, and after another action,
// when that process runs already.
void measure_property_handler(report& results)
{
    const std::vector<registry_row> values = registered_values();
    const package_action action{.name = L"propertyhandler_update_registry"};
    const package_action other{.name = L"propertyhandler_remove_registry"}; // finds nothing to remove
    const scratch_package smallest{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A01}", {}, {}};
    const scratch_package with_rows{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A02}", values, {}};
    const scratch_package with_action{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A03}", {}, {action}};
    const scratch_package with_other{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A04}", {}, {other}};
    const scratch_package with_both{L"{5A1F0C67-93C4-4B57-8C3C-3E2F0E6B7A05}", {}, {other, action}};

    remove_all(); // in case an earlier run was interrupted
    const auto times = median_times(
        {installation_of(smallest, values, false),
         installation_of(with_rows, values, true),
         installation_of(with_action, values, true),
         installation_of(with_other, values, false),
         installation_of(with_both, values, true)});
    const double rows = times[1][0] - times[0][0];
    const std::string count = " / " + std::to_string(values.size()) + " rows of a Registry table";
    results.faster_than(
        "the property handler's action in an installation" + count, times[2][0] - times[0][0], rows, 5);
    results.faster_than("the same, after another action" + count, times[4][0] - times[3][0], rows, 0);
    results.faster_than("its work alone, without an installation" + count, time_work_alone(), rows, 0);
}

} // namespace benchmarks
