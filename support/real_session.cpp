#include "support/real_session.h"

#include "support/require.h"

#include <msiquery.h>

#include <utility>

namespace test_support {
namespace {

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

real_session::real_session(message_listener listener)
    : database_{L"{8A0E7B8B-0C7C-4E1B-8E7A-6C0B6D6C2B11}"}, listener_{std::move(listener)}
{
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    require(
        MsiOpenPackageW((L"#" + std::to_wstring(database_.handle())).c_str(), session_.put()),
        "MsiOpenPackageW");
    constexpr DWORD log_lines_and_errors =
        INSTALLLOGMODE_INFO | INSTALLLOGMODE_ERROR | INSTALLLOGMODE_USER | INSTALLLOGMODE_WARNING;
    require(
        MsiSetExternalUIRecord(on_message, log_lines_and_errors, this, nullptr), "MsiSetExternalUIRecord");
}

real_session::~real_session()
{
    MsiSetExternalUIRecord(nullptr, 0, nullptr, nullptr);
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
