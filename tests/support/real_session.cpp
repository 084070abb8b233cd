#include "tests/support/real_session.h"

#include <msiquery.h>
#include <wtypes.h>

#include <array>
#include <system_error>
#include <utility>

namespace test_support {
namespace {

void require(UINT result, const char* what)
{
    if (result != ERROR_SUCCESS) {
        throw std::system_error{static_cast<int>(result), std::system_category(), what};
    }
}

std::wstring scratch_file()
{
    std::array<wchar_t, MAX_PATH> folder{};
    std::array<wchar_t, MAX_PATH> file{};
    GetTempPathW(static_cast<DWORD>(folder.size()), folder.data());
    GetTempFileNameW(folder.data(), L"qbl", 0, file.data());
    return file.data();
}

void run_query(MSIHANDLE database, const wchar_t* sql)
{
    custom_actions::record_handle view;
    require(MsiDatabaseOpenViewW(database, sql, view.put()), "MsiDatabaseOpenViewW");
    require(MsiViewExecute(view.get(), 0), "MsiViewExecute");
}

// The least that the installer takes for a package.
void fill(MSIHANDLE database)
{
    custom_actions::record_handle summary;
    require(MsiGetSummaryInformationW(database, nullptr, 4, summary.put()), "MsiGetSummaryInformationW");
    const auto set_text = [&](UINT property, const wchar_t* text) {
        require(
            MsiSummaryInfoSetPropertyW(summary.get(), property, VT_LPSTR, 0, nullptr, text),
            "MsiSummaryInfoSetPropertyW");
    };
    set_text(7, L"x64;1033");
    set_text(9, L"{F5F9C1A2-1C33-4E6B-9D53-9D0B6AD1E5C7}");
    require(
        MsiSummaryInfoSetPropertyW(summary.get(), 14, VT_I4, 200, nullptr, nullptr),
        "MsiSummaryInfoSetPropertyW");
    require(
        MsiSummaryInfoSetPropertyW(summary.get(), 15, VT_I4, 2, nullptr, nullptr),
        "MsiSummaryInfoSetPropertyW");
    require(MsiSummaryInfoPersist(summary.get()), "MsiSummaryInfoPersist");

    run_query(
        database,
        L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL PRIMARY KEY "
        L"`Property`)");
    for (const wchar_t* row :
         {L"('ProductCode', '{8A0E7B8B-0C7C-4E1B-8E7A-6C0B6D6C2B11}')",
          L"('ProductName', 'Scratch')",
          L"('ProductVersion', '1.5.0')",
          L"('ProductLanguage', '1033')",
          L"('Manufacturer', 'Brenmoor')"}) {
        run_query(
            database, (std::wstring{L"INSERT INTO `Property` (`Property`, `Value`) VALUES "} + row).c_str());
    }
}

std::wstring formatted(MSIHANDLE record)
{
    wchar_t none = L'\0';
    DWORD length = 0;
    MsiFormatRecordW(0, record, &none, &length);
    std::wstring text(++length, L'\0'); // with its terminating zero
    require(MsiFormatRecordW(0, record, text.data(), &length), "MsiFormatRecordW");
    text.resize(length);
    return text;
}

} // namespace

real_session::real_session(message_listener listener) : path_{scratch_file()}, listener_{std::move(listener)}
{
    require(MsiOpenDatabaseW(path_.c_str(), MSIDBOPEN_CREATE, database_.put()), "MsiOpenDatabaseW");
    fill(database_.get());
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    require(
        MsiOpenPackageW((L"#" + std::to_wstring(database_.get())).c_str(), session_.put()),
        "MsiOpenPackageW");
    constexpr DWORD log_lines_and_errors =
        INSTALLLOGMODE_INFO | INSTALLLOGMODE_ERROR | INSTALLLOGMODE_USER | INSTALLLOGMODE_WARNING;
    require(
        MsiSetExternalUIRecord(on_message, log_lines_and_errors, this, nullptr), "MsiSetExternalUIRecord");
}

real_session::~real_session()
{
    MsiSetExternalUIRecord(nullptr, 0, nullptr, nullptr);
    session_ = {};
    database_ = {};
    DeleteFileW(path_.c_str());
}

INT WINAPI real_session::on_message(LPVOID context, UINT type, MSIHANDLE record)
{
    auto& session = *static_cast<real_session*>(context);
    session.messages_.push_back({type, formatted(record)});
    if (session.listener_) {
        session.listener_(session.messages_.back());
    }
    return IDOK;
}

} // namespace test_support
