#include "benchmarks/scratch_package.h"

#include "benchmarks/harness.h"
#include "custom_actions/common/scoped_handle.h"
#include "support/child_process.h"

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <set>
#include <utility>

namespace benchmarks {
namespace {

using custom_actions::record_handle;
using test_support::scratch_database;

// The smallest package that can be installed and removed: one component, whose key path is a registry value.
constexpr const wchar_t* SMALLEST_PACKAGE[]{
    L"CREATE TABLE `Directory` (`Directory` CHAR(72) NOT NULL, `Directory_Parent` CHAR(72), `DefaultDir` "
    L"CHAR(255) NOT NULL PRIMARY KEY `Directory`)",
    L"CREATE TABLE `Component` (`Component` CHAR(72) NOT NULL, `ComponentId` CHAR(38), `Directory_` CHAR(72) "
    L"NOT NULL, `Attributes` SHORT NOT NULL, `Condition` CHAR(255), `KeyPath` CHAR(72) PRIMARY KEY "
    L"`Component`)",
    L"CREATE TABLE `Feature` (`Feature` CHAR(38) NOT NULL, `Feature_Parent` CHAR(38), `Title` CHAR(64), "
    L"`Description` CHAR(255), `Display` SHORT, `Level` SHORT NOT NULL, `Directory_` CHAR(72), `Attributes` "
    L"SHORT NOT NULL PRIMARY KEY `Feature`)",
    L"CREATE TABLE `FeatureComponents` (`Feature_` CHAR(38) NOT NULL, `Component_` CHAR(72) NOT NULL PRIMARY "
    L"KEY `Feature_`, `Component_`)",
    L"CREATE TABLE `Registry` (`Registry` CHAR(72) NOT NULL, `Root` SHORT NOT NULL, `Key` CHAR(255) NOT "
    L"NULL, "
    L"`Name` CHAR(255), `Value` CHAR(0), `Component_` CHAR(72) NOT NULL PRIMARY KEY `Registry`)",
    L"CREATE TABLE `InstallExecuteSequence` (`Action` CHAR(72) NOT NULL, `Condition` CHAR(255), `Sequence` "
    L"SHORT PRIMARY KEY `Action`)",
    L"CREATE TABLE `CustomAction` (`Action` CHAR(72) NOT NULL, `Type` SHORT NOT NULL, `Source` CHAR(72), "
    L"`Target` CHAR(255) PRIMARY KEY `Action`)",
    L"CREATE TABLE `Binary` (`Name` CHAR(72) NOT NULL, `Data` OBJECT NOT NULL PRIMARY KEY `Name`)",

    L"INSERT INTO `Directory` (`Directory`, `DefaultDir`) VALUES ('TARGETDIR', 'SourceDir')",
    // 260: 64-bit, the key path is a registry value.
    L"INSERT INTO `Component` (`Component`, `ComponentId`, `Directory_`, `Attributes`, `KeyPath`) VALUES "
    L"('registration', '{0C4B1F5E-6B0A-4D29-9C0B-53D5A1C7E301}', 'TARGETDIR', 260, 'key_path')",
    L"INSERT INTO `Feature` (`Feature`, `Level`, `Attributes`) VALUES ('registration', 1, 0)",
    L"INSERT INTO `FeatureComponents` (`Feature_`, `Component_`) VALUES ('registration', 'registration')",
    L"INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Value`, `Component_`) VALUES ('key_path', "
    L"2, "
    L"'SOFTWARE\\Brenmoor\\Quorbel benchmark', 'Installed', 'yes', 'registration')",
};

// The standard actions with their usual sequence numbers.
constexpr std::pair<const wchar_t*, int> STANDARD_ACTIONS[]{
    {L"CostInitialize", 800},
    {L"FileCost", 900},
    {L"CostFinalize", 1000},
    {L"InstallValidate", 1400},
    {L"InstallInitialize", 1500},
    {L"ProcessComponents", 1600},
    {L"UnpublishFeatures", 1800},
    {L"RemoveRegistryValues", 2600},
    {L"WriteRegistryValues", 5000},
    {L"RegisterProduct", 6100},
    {L"PublishFeatures", 6300},
    {L"PublishProduct", 6400},
    {L"InstallFinalize", 6600},
};
constexpr int AFTER_INSTALL_VALIDATE = 1401;
constexpr int AFTER_WRITE_REGISTRY_VALUES = 5001;

void add_sequence(const scratch_database& database)
{
    for (const auto& [action, number] : STANDARD_ACTIONS) {
        database.run(
            std::wstring{L"INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('"} + action +
            L"', " + std::to_wstring(number) + L")");
    }
}

void add_rows(const scratch_database& database, const std::vector<registry_row>& rows)
{
    const record_handle record{MsiCreateRecord(4)};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        MsiRecordSetStringW(record.get(), 1, (L"row" + std::to_wstring(i)).c_str());
        MsiRecordSetStringW(record.get(), 2, rows[i].key.c_str());
        MsiRecordSetStringW(record.get(), 3, rows[i].name.c_str());
        MsiRecordSetStringW(record.get(), 4, rows[i].text.c_str());
        database.run(
            L"INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Value`, `Component_`) VALUES "
            L"(?, 2, ?, ?, ?, 'registration')",
            record.get());
    }
}

void add_library(const scratch_database& database, const std::wstring& name)
{
    const std::wstring library = test_support::beside_this_program(name);
    const record_handle record{MsiCreateRecord(2)};
    MsiRecordSetStringW(record.get(), 1, name.c_str());
    require(MsiRecordSetStreamW(record.get(), 2, library.c_str()), "cannot read a library");
    database.run(L"INSERT INTO `Binary` (`Name`, `Data`) VALUES (?, ?)", record.get());
}

void add_action(const scratch_database& database, const package_action& action, int number)
{
    database.run(
        L"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('" + action.name +
        L"', " + std::to_wstring(action.type) + L", '" + action.library + L"', '" + action.function + L"')");
    database.run(
        L"INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('" + action.name +
        L"', 'NOT REMOVE', " + std::to_wstring(number) + L")");
}

void add_actions(const scratch_database& database, const std::vector<package_action>& actions)
{
    int immediate = AFTER_INSTALL_VALIDATE;
    int deferred = AFTER_WRITE_REGISTRY_VALUES;
    std::set<std::wstring> libraries;
    for (const package_action& action : actions) {
        if (libraries.insert(action.library).second) {
            add_library(database, action.library);
        }
        const bool is_immediate = (action.type & ~GOES_ON_WHEN_IT_FAILS) == IMMEDIATE;
        add_action(database, action, is_immediate ? immediate++ : deferred++);
    }
}

UINT remove_product(const std::wstring& product_code)
{
    return MsiConfigureProductW(product_code.c_str(), INSTALLLEVEL_DEFAULT, INSTALLSTATE_ABSENT);
}

} // namespace

scratch_package::scratch_package(
    std::wstring product_code,
    const std::vector<registry_row>& rows,
    const std::vector<package_action>& actions,
    const std::vector<std::pair<std::wstring, std::wstring>>& properties)
    : product_code_{std::move(product_code)}, database_{product_code_}
{
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    remove_product(product_code_);

    database_.add_property(L"ALLUSERS", L"1");
    for (const auto& [name, value] : properties) {
        database_.add_property(name, value);
    }
    for (const wchar_t* statement : SMALLEST_PACKAGE) {
        database_.run(statement);
    }
    add_sequence(database_);
    add_rows(database_, rows);
    add_actions(database_, actions);
    database_.finish();
}

scratch_package::~scratch_package()
{
    remove_product(product_code_);
}

void scratch_package::install() const
{
    require(MsiInstallProductW(database_.path().c_str(), L""), "cannot install a package");
}

void scratch_package::remove() const
{
    require(remove_product(product_code_), "cannot remove a package");
}

} // namespace benchmarks
