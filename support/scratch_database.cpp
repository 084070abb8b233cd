#include "support/scratch_database.h"

#include "support/require.h"

#include <msiquery.h>
#include <wtypes.h>

#include <filesystem>

namespace test_support {
namespace {

using custom_actions::record_handle;

// Named by process id, so that files left by killed processes are overwritten and do not pile up.
std::wstring scratch_file()
{
    static unsigned made_before = 0;
    const std::wstring name =
        std::to_wstring(GetCurrentProcessId()) + L'-' + std::to_wstring(++made_before) + L".scratch.msi";
    return std::filesystem::temp_directory_path() / name;
}

void describe(MSIHANDLE database, const std::wstring& package_code)
{
    record_handle summary;
    require(MsiGetSummaryInformationW(database, nullptr, 4, summary.put()), "MsiGetSummaryInformationW");
    const auto set = [&](UINT property, UINT type, int number, const wchar_t* text) {
        require(
            MsiSummaryInfoSetPropertyW(summary.get(), property, type, number, nullptr, text),
            "MsiSummaryInfoSetPropertyW");
    };
    set(7, VT_LPSTR, 0, L"x64;1033");
    set(9, VT_LPSTR, 0, package_code.c_str());
    set(14, VT_I4, 200, nullptr); // the installer version required
    set(15, VT_I4, 2, nullptr);   // compressed, long names
    require(MsiSummaryInfoPersist(summary.get()), "MsiSummaryInfoPersist");
}

} // namespace

scratch_database::scratch_database(const std::wstring& product_code) : path_{scratch_file()}
{
    require(MsiOpenDatabaseW(path_.c_str(), MSIDBOPEN_CREATE, database_.put()), "MsiOpenDatabaseW");
    describe(database_.get(), product_code);
    run(L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL PRIMARY KEY "
        L"`Property`)");
    add_property(L"ProductCode", product_code);
    add_property(L"ProductName", L"Scratch");
    add_property(L"ProductVersion", L"1.5.0");
    add_property(L"ProductLanguage", L"1033");
    add_property(L"Manufacturer", L"Brenmoor");
}

scratch_database::~scratch_database()
{
    database_ = {};
    DeleteFileW(path_.c_str());
}

void scratch_database::run(const std::wstring& sql, MSIHANDLE record) const
{
    record_handle view;
    require(MsiDatabaseOpenViewW(handle(), sql.c_str(), view.put()), "MsiDatabaseOpenViewW");
    require(MsiViewExecute(view.get(), record), "MsiViewExecute");
}

void scratch_database::add_property(const std::wstring& name, const std::wstring& value) const
{
    const record_handle row{MsiCreateRecord(2)};
    MsiRecordSetStringW(row.get(), 1, name.c_str());
    MsiRecordSetStringW(row.get(), 2, value.c_str());
    run(L"INSERT INTO `Property` (`Property`, `Value`) VALUES (?, ?)", row.get());
}

void scratch_database::finish()
{
    require(MsiDatabaseCommit(handle()), "MsiDatabaseCommit");
    database_ = {};
}

} // namespace test_support
