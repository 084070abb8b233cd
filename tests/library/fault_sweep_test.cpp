// Runs every action of the built library with its n-th call to Windows failing, once with a passing and once
// with a staying fault. The action must return one of its codes with a message that says what failed
// (fault_messages.txt), and leave nothing behind.

#include "custom_actions/common/text.h"
#include "support/disposable_machine.h"
#include "support/loaded_library.h"
#include "support/pe_image.h"
#include "tests/support/faults.h"
#include "tests/support/furnished_machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {
namespace {

using custom_actions::widen;

// A line of fault_messages.txt: a text, without its numbers, that an action may report if this call fails.
// "*" stands for every action and every call. A call is a function of Windows or a method of the Task
// Scheduler's objects ("ITaskService::Connect").
struct expected_text {
    std::wstring action;
    std::wstring call;
    std::wstring text;
};

std::vector<expected_text> expected_texts()
{
    std::vector<expected_text> all;
    std::wifstream list{SOURCE_DIR "/tests/library/fault_messages.txt"};
    for (expected_text line; list >> line.action >> line.call >> std::ws && std::getline(list, line.text);) {
        all.push_back(line);
    }
    return all;
}

class FaultSweep : public testing::TestWithParam<std::string> {
protected:
    static void TearDownTestSuite() { stage_.reset(); }

    void SetUp() override
    {
        if (!machine_is_disposable()) {
            GTEST_SKIP() << "starts the suite's programs: set DISPOSABLE_MACHINE if that is allowed";
        }
        if (!stage_) {
            stage_.emplace();
        }
    }

    // What remains of the text without the texts expected if this call fails.
    std::wstring unexpected(const std::wstring& failing, std::wstring text) const
    {
        for (const auto& [action, call, known] : expected_) {
            std::size_t at = 0;
            while ((action == L"*" || (action == action_ && call == failing)) &&
                   (at = text.find(known)) != std::wstring::npos) {
                text.erase(at, known.size());
            }
        }
        std::erase_if(text, [](wchar_t letter) {
            return std::wstring_view{L"0123456789; "}.find(letter) != std::wstring_view::npos;
        });
        return text;
    }

    // Calls the action and checks what it leaves. Returns how many more handles are open than before.
    long run(std::size_t nth = 0, call_sweep::fault fault = call_sweep::fault::passing)
    {
        stage_->furnish(GetParam());
        stage_->scheduler.fail(failing_object_call_);
        const DWORD handles = open_handles();
        const auto& messages = stage_->session.messages();
        const std::size_t posted = messages.size();
        stage_->sweep.plan(nth, fault);
        const UINT code = stage_->library.call(GetParam().c_str(), stage_->session.handle());
        const auto& calls = stage_->sweep.calls();
        const std::wstring failing =
            nth != 0 && nth <= calls.size() ? widen(calls[nth - 1]) : failing_object_call_;
        const bool of_package = code == ERROR_INVALID_PARAMETER && GetParam().starts_with("msix_");
        EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_INSTALL_FAILURE || of_package) << code;
        const bool silent = messages.size() == posted;
        std::wstring outcome = silent ? L"(is silent)" : messages.back().text;
        if (code == ERROR_SUCCESS && (silent || messages.back().type != INSTALLMESSAGE_ERROR)) {
            outcome = L"(succeeds)";
        }
        EXPECT_EQ(unexpected(failing, outcome + stage_->lost()), L"");
        EXPECT_EQ(stage_->session.open_records(), 0U);
        EXPECT_EQ(stage_->scheduler.objects(), 0U);
        EXPECT_EQ(stage_->scheduler.unexpected(), L"");
        EXPECT_FALSE(thread_is_impersonating());
        RevertToSelf();
        const auto left_open = static_cast<long>(open_handles() - handles);
        std::filesystem::remove_all(stage_->upgrade.workspace); // throws if one of its files is left open
        faults_ += stage_->sweep.failed();
        return left_open;
    }

    void inject(std::size_t nth)
    {
        for (const auto fault : {call_sweep::fault::passing, call_sweep::fault::staying}) {
            const char* const how = fault == call_sweep::fault::passing ? ", passing" : ", staying";
            SCOPED_TRACE(calls_[nth - 1] + ", call " + std::to_string(nth) + how);
            // The system may open a handle on first use and keep it; one that a second run leaves is a leak.
            if (run(nth, fault) > 0) {
                EXPECT_LE(run(nth, fault), 0) << "handles left open";
            }
        }
    }

    void inject_into_objects()
    {
        for (const auto& [action, call, text] : expected_) {
            if (action == action_ && call.find(L"::") != std::wstring::npos) {
                SCOPED_TRACE(testing::PrintToString(call));
                failing_object_call_ = call;
                run();
            }
        }
    }

    inline static std::optional<furnished_machine> stage_;
    const std::wstring action_ = widen(GetParam());
    const std::vector<expected_text> expected_ = expected_texts();
    std::wstring failing_object_call_ = L"nothing";
    std::vector<std::string> calls_;
    std::size_t faults_ = 0;
};

TEST_P(FaultSweep, returns_one_of_its_codes_and_leaves_nothing_behind)
{
    testing::internal::CaptureStdout(); // the action prints a thousand times
    run();                              // the system opens handles on first use
    EXPECT_EQ(run(), 0) << "handles left open without a fault";
    calls_ = stage_->sweep.calls();
    for (std::size_t nth = 1; nth <= calls_.size() && !HasFailure(); ++nth) {
        inject(nth);
    }
    EXPECT_GE(faults_, 2U);
    inject_into_objects();
    if (const std::string output = testing::internal::GetCapturedStdout(); HasFailure()) {
        std::cout << output;
    }
    std::cout << GetParam() << ": " << calls_.size() << " calls, " << faults_ << " faults\n";
}

INSTANTIATE_TEST_SUITE_P(
    Exports,
    FaultSweep,
    testing::ValuesIn(pe_image{loaded_library{}.module()}.exported_names()),
    [](const auto& tested) { return tested.param; });

} // namespace
} // namespace test_support
