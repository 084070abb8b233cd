#include "custom_actions/common/installer_session.h"
#include "custom_actions/common/windows_error.h"
#include "tests/support/real_session.h"
#include "tests/support/scripted_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <gtest/gtest-spi.h>
#include <string>
#include <vector>

namespace custom_actions {
namespace {

using test_support::installer_call;
using test_support::posted_message;
using testing::ElementsAre;
using testing::IsEmpty;

class InstallerSession : public testing::Test {
protected:
    test_support::scripted_session session{GetModuleHandleW(nullptr)};
};

TEST_F(InstallerSession, posts_a_line_as_one_record_and_closes_it)
{
    msi_log(session.handle(), L"a line");
    msi_message(session.handle(), INSTALLMESSAGE_ERROR, L"an error");
    EXPECT_THAT(
        session.messages(),
        ElementsAre(posted_message{0x04000000, L"a line"}, posted_message{0x01000000, L"an error"}));
    EXPECT_EQ(session.open_records(), 0U);
}

TEST_F(InstallerSession, says_nothing_without_a_session)
{
    msi_log(0, L"a line");
    msi_message(0, INSTALLMESSAGE_ERROR, L"an error");
    EXPECT_THAT(session.calls(), IsEmpty());
}

TEST_F(InstallerSession, says_nothing_without_a_record)
{
    session.fail(installer_call::create_record);
    msi_log(session.handle(), L"a line");
    EXPECT_THAT(session.calls(), ElementsAre("MsiCreateRecord(1)"));
}

TEST_F(InstallerSession, closes_the_record_whatever_the_calls_before_return)
{
    for (const auto call :
         {installer_call::set_string, installer_call::process_message, installer_call::close_handle}) {
        session.fail(call);
        msi_log(session.handle(), L"a line");
        EXPECT_EQ(session.open_records(), 0U);
    }
}

TEST_F(InstallerSession, tests_neither_session_nor_record_in_the_log_of_the_upgrade)
{
    EXPECT_EQ(upgrade_log(session.handle(), L"a step"), ERROR_SUCCESS);
    EXPECT_THAT(session.messages(), ElementsAre(posted_message{0x04000000, L"Controlled upgrade: a step"}));

    session.fail(installer_call::close_handle, ERROR_INVALID_HANDLE);
    EXPECT_EQ(upgrade_log(0, L"a step"), ERROR_INVALID_HANDLE) << "what closing the record returned";
    session.fail(installer_call::create_record);
    EXPECT_EQ(upgrade_log(session.handle(), L"a step"), static_cast<UINT>(-1)) << "what posting returned";
    EXPECT_THAT(
        session.calls(),
        ElementsAre(
            "MsiCreateRecord(1)",
            "MsiRecordSetStringW(record, 0)",
            "MsiProcessMessage(session, record)",
            "MsiCloseHandle(record)",
            "MsiCreateRecord(1)",
            "MsiRecordSetStringW(record, 0)",
            "MsiProcessMessage(0, record)",
            "MsiCloseHandle(record)",
            "MsiCreateRecord(1)",
            "MsiRecordSetStringW(0, 0)",
            "MsiProcessMessage(session, 0)"));
}

std::vector<std::wstring> values_of_every_length()
{
    return {L"", L"1", L"12", std::wstring(254, L'x'), std::wstring(5000, L'y')};
}

TEST_F(InstallerSession, reads_a_property_whole)
{
    for (const std::wstring& value : values_of_every_length()) {
        session.set_property(L"CustomActionData", value);
        EXPECT_EQ(read_property(session.handle(), L"CustomActionData"), value);
    }
}

TEST_F(InstallerSession, throws_where_a_property_cannot_be_read)
{
    const auto message_of_a_read = [&](MSIHANDLE handle, UINT code) -> std::string {
        try {
            read_property(handle, L"CustomActionData");
        } catch (const windows_error& error) {
            EXPECT_EQ(error.code(), code);
            return error.what();
        }
        return "";
    };
    session.set_property(L"CustomActionData", L"value");
    session.fail(installer_call::get_property, ERROR_FUNCTION_FAILED, 1);
    EXPECT_EQ(message_of_a_read(session.handle(), ERROR_FUNCTION_FAILED), "Cannot read installer property");
    session.fail(installer_call::get_property, ERROR_MORE_DATA, 2); // the value grew between the calls
    EXPECT_EQ(message_of_a_read(session.handle(), ERROR_MORE_DATA), "Cannot read installer property");
    EXPECT_EQ(message_of_a_read(0, ERROR_INVALID_HANDLE), "Cannot read installer property");
}

// The scripted session is only worth as much as it agrees with the installer.
struct property_reading {
    UINT result;
    DWORD count;
    std::wstring text;

    bool operator==(const property_reading&) const = default;
};

std::vector<property_reading> read_with_every_buffer(MSIHANDLE session)
{
    std::vector<property_reading> readings;
    for (const std::wstring& value : values_of_every_length()) {
        MsiSetPropertyW(session, L"PROBED", value.c_str());
        for (const DWORD size : {0UL, 1UL, 2UL, 3UL, 64UL}) {
            wchar_t buffer[64] = L"untouched";
            DWORD count = size;
            const UINT result = MsiGetPropertyW(session, L"PROBED", buffer, &count);
            readings.push_back({result, count, buffer});
        }
        DWORD count = 0;
        const UINT result = MsiGetPropertyW(session, L"PROBED", nullptr, &count);
        readings.push_back({result, count, L""});
    }
    wchar_t buffer[64] = L"untouched";
    readings.push_back({MsiGetPropertyW(session, L"PROBED", buffer, nullptr), 0, buffer});
    DWORD count = 64;
    readings.push_back({MsiGetPropertyW(0, L"PROBED", buffer, &count), count, buffer});
    MsiSetPropertyW(session, L"PROBED", nullptr);
    count = 64;
    readings.push_back({MsiGetPropertyW(session, L"PROBED", buffer, &count), count, buffer});
    return readings;
}

TEST(ScriptedSession, keeps_the_length_rules_of_the_real_installer)
{
    std::vector<property_reading> scripted;
    {
        const test_support::scripted_session session{GetModuleHandleW(nullptr)};
        scripted = read_with_every_buffer(session.handle());
    }
    const test_support::real_session session;
    const std::vector<property_reading> real = read_with_every_buffer(session.handle());
    ASSERT_EQ(real.size(), scripted.size());
    for (std::size_t i = 0; i != real.size(); ++i) {
        EXPECT_EQ(real[i].result, scripted[i].result) << "reading " << i;
        EXPECT_EQ(real[i].count, scripted[i].count) << "reading " << i;
        EXPECT_EQ(real[i].text, scripted[i].text) << "reading " << i;
    }
}

TEST(ScriptedSession, fails_a_test_that_leaves_a_record_open)
{
    EXPECT_NONFATAL_FAILURE(
        {
            const test_support::scripted_session session{GetModuleHandleW(nullptr)};
            MsiCreateRecord(1);
        },
        "records left open");
    EXPECT_NONFATAL_FAILURE(
        {
            const test_support::scripted_session session{GetModuleHandleW(nullptr)};
            const MSIHANDLE record = MsiCreateRecord(1);
            MsiCloseHandle(record);
            MsiCloseHandle(record);
        },
        "not an open record");
    EXPECT_NONFATAL_FAILURE(
        {
            test_support::scripted_session session{GetModuleHandleW(nullptr)};
            session.fail(installer_call::set_property);
        },
        "never reached");
}

TEST(RealInstaller, takes_the_lines_and_gives_the_properties)
{
    const test_support::real_session session;
    EXPECT_EQ(read_property(session.handle(), L"ProductVersion"), L"1.5.0");
    EXPECT_EQ(read_property(session.handle(), L"UNSET_PROPERTY"), L"");
    for (const std::wstring& value : values_of_every_length()) {
        ASSERT_EQ(MsiSetPropertyW(session.handle(), L"LONG", value.c_str()), ERROR_SUCCESS);
        EXPECT_EQ(read_property(session.handle(), L"LONG"), value);
    }
    msi_log(session.handle(), L"a line");
    upgrade_log(session.handle(), L"a step");
    EXPECT_THAT(
        session.messages(),
        ElementsAre(
            posted_message{0x04000000, L"a line"},
            posted_message{0x04000000, L"Controlled upgrade: a step"}));
}

} // namespace
} // namespace custom_actions
