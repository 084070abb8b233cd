#include "tests/support/scripted_session.h"

#include "custom_actions/common/installer_session.h"
#include "support/pe_image.h"
#include "support/require.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <utility>

namespace test_support {
namespace {

using component_path_query = INSTALLSTATE
    WINAPI(LPCWSTR, LPCWSTR, LPCWSTR, MSIINSTALLCONTEXT, LPWSTR, LPDWORD);

// Nothing where the module does not import the function: a test program is linked with what it calls alone.
template <function_name Name, class Function>
std::shared_ptr<void> intercept(HMODULE module, typename intercepted_import<Name, Function>::answer answer)
{
    const auto imports = pe_image{module}.imports();
    const bool imported = std::ranges::find(imports, Name.text, &imported_function::name) != imports.end();
    return imported ? std::make_shared<intercepted_import<Name, Function>>(module, std::move(answer))
                    : nullptr;
}

} // namespace

void PrintTo(const posted_message& message, std::ostream* out)
{
    *out << "{0x" << std::hex << message.type << std::dec << ", " << testing::PrintToString(message.text)
         << '}';
}

scripted_session::scripted_session(HMODULE module)
{
    interceptions_ = {
        intercept<"MsiGetPropertyW", decltype(MsiGetPropertyW)>(
            module, [this](auto...) { return failure(installer_call::get_property); }),
        intercept<"MsiSetPropertyW", decltype(MsiSetPropertyW)>(
            module, [this](auto...) { return failure(installer_call::set_property); }),
        intercept<"MsiCreateRecord", decltype(MsiCreateRecord)>(
            module,
            [this](UINT) {
                ++open_records_;
                return std::nullopt;
            }),
        intercept<"MsiCloseHandle", decltype(MsiCloseHandle)>(
            module,
            [this](MSIHANDLE record) {
                --open_records_;
                EXPECT_NE(MsiRecordGetFieldCount(record), ~0U) << "closed, but no open record: " << record;
                return std::nullopt;
            }),
        intercept<"MsiSetTargetPathW", decltype(MsiSetTargetPathW)>(
            module,
            [this](MSIHANDLE, const std::wstring& folder, const std::wstring& path) {
                const auto code = failure(installer_call::set_target_path);
                if (!code) {
                    // As the installer does, with one separator at its end.
                    set_property(folder, path.ends_with(L'\\') ? path : path + L'\\');
                }
                return code.value_or(ERROR_SUCCESS);
            }),
        intercept<"MsiGetComponentPathExW", component_path_query>(
            module,
            [this](
                const std::wstring& product,
                const std::wstring& component,
                LPCWSTR user,
                MSIINSTALLCONTEXT context,
                LPWSTR path,
                LPDWORD size) {
                const auto state = failure(installer_call::get_component_path);
                const auto found = key_paths_.find(product + component);
                if (state || found == key_paths_.end() || user != nullptr ||
                    context != MSIINSTALLCONTEXT_MACHINE) {
                    return state ? static_cast<INSTALLSTATE>(*state) : INSTALLSTATE_UNKNOWN;
                }
                *size = static_cast<DWORD>(found->second.copy(path, *size)); // which is all zeros
                return INSTALLSTATE_LOCAL;
            })};
}

scripted_session::~scripted_session()
{
    EXPECT_EQ(open_records_, 0U) << "records left open";
    EXPECT_FALSE(planned_) << "a planned failure was never met";
}

void scripted_session::set_property(const std::wstring& name, const std::wstring& value) const
{
    require(MsiSetPropertyW(handle(), name.c_str(), value.c_str()), "MsiSetPropertyW");
}

std::optional<std::wstring> scripted_session::property(const std::wstring& name) const
{
    const std::wstring value = custom_actions::read_property(handle(), name.c_str());
    return value.empty() ? std::nullopt : std::optional{value};
}

void scripted_session::fail(installer_call call, UINT code, unsigned nth)
{
    EXPECT_FALSE(planned_) << "a planned failure was never met";
    planned_ = {.call = call, .code = code, .calls_left = nth};
}

std::optional<UINT> scripted_session::failure(installer_call call)
{
    if (!planned_ || planned_->call != call || --planned_->calls_left != 0) {
        return std::nullopt;
    }
    return std::exchange(planned_, std::nullopt)->code;
}

} // namespace test_support
