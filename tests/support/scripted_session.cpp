#include "tests/support/scripted_session.h"

#include "support/pe_image.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <string_view>

namespace test_support {
namespace {

// Far from the small numbers that the real installer gives out, so that a call that is not played here fails.
constexpr MSIHANDLE SESSION = 0x5E550000;
constexpr MSIHANDLE FIRST_RECORD = 0x7EC00001;

using component_path_query = INSTALLSTATE
    WINAPI(LPCWSTR, LPCWSTR, LPCWSTR, MSIINSTALLCONTEXT, LPWSTR, LPDWORD);

std::string narrow(std::wstring_view text)
{
    std::string bytes;
    std::ranges::transform(text, std::back_inserter(bytes), [](wchar_t unit) {
        return unit < 0x80 ? static_cast<char>(unit) : '?';
    });
    return bytes;
}

} // namespace

void PrintTo(const posted_message& message, std::ostream* out)
{
    *out << "{0x" << std::hex << message.type << std::dec << ", \"" << narrow(message.text) << "\"}";
}

scripted_session::scripted_session(HMODULE module) : last_record_{FIRST_RECORD - 1}
{
    play_properties(module);
    play_records(module);
    play_folders(module);
    for (const auto& import : pe_image{module}.imports()) {
        if (module != GetModuleHandleW(nullptr) && _stricmp(import.library.c_str(), "msi.dll") == 0 &&
            !played_.contains(import.name)) {
            throw std::runtime_error{"not played by the scripted session: " + import.name};
        }
    }
}

scripted_session::~scripted_session()
{
    EXPECT_EQ(records_.size(), 0U) << "records left open";
    for (const auto& [call, planned] : failures_) {
        ADD_FAILURE() << "a planned failure was never reached: call kind " << static_cast<int>(call);
    }
}

template <function_name Name, class Function, class Answer>
void scripted_session::play(HMODULE module, Answer answer)
{
    played_.insert(Name.text);
    const auto imports = pe_image{module}.imports();
    if (std::ranges::find(imports, Name.text, &imported_function::name) == imports.end()) {
        return; // a test program is linked with what it calls alone
    }
    interceptions_.push_back(std::make_shared<intercepted_import<Name, Function>>(
        module, [answer](auto... arguments) { return std::optional{answer(arguments...)}; }));
}

MSIHANDLE scripted_session::handle() const noexcept
{
    return SESSION;
}

void scripted_session::set_property(const std::wstring& name, const std::wstring& value)
{
    if (value.empty()) {
        properties_.erase(name);
    } else {
        properties_[name] = value;
    }
}

std::optional<std::wstring> scripted_session::property(const std::wstring& name) const
{
    const auto found = properties_.find(name);
    return found == properties_.end() ? std::nullopt : std::optional{found->second};
}

void scripted_session::install_component(
    const std::wstring& product, const std::wstring& component, const std::wstring& key_path)
{
    key_paths_[product + component] = key_path;
}

void scripted_session::fail(installer_call call, UINT code, unsigned nth)
{
    failures_[call] = {.calls_left = nth, .code = code};
}

std::optional<UINT> scripted_session::failure(installer_call call, MSIHANDLE session)
{
    const auto planned = failures_.find(call);
    if (planned == failures_.end() || --planned->second.calls_left != 0) {
        return session == SESSION ? std::nullopt : std::optional<UINT>{ERROR_INVALID_HANDLE};
    }
    const UINT code = planned->second.code;
    failures_.erase(planned);
    return code;
}

// What the real installer answers, with its rules for lengths.
UINT scripted_session::get_property(LPCWSTR name, LPWSTR buffer, LPDWORD count) const
{
    if (buffer != nullptr && count == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring value = property(name).value_or(L"");
    UINT result = ERROR_SUCCESS;
    if (buffer != nullptr) {
        if (*count > 0) {
            const std::size_t copied = std::min<std::size_t>(value.size(), *count - 1);
            *std::copy_n(value.begin(), copied, buffer) = L'\0';
        }
        result = value.size() >= *count ? ERROR_MORE_DATA : ERROR_SUCCESS;
    }
    if (count != nullptr) {
        *count = static_cast<DWORD>(value.size());
    }
    return result;
}

void scripted_session::play_properties(HMODULE module)
{
    play<"MsiGetPropertyW", decltype(MsiGetPropertyW)>(
        module, [this](MSIHANDLE session, LPCWSTR name, LPWSTR buffer, LPDWORD count) {
            if (const auto code = failure(installer_call::get_property, session)) {
                return *code;
            }
            return get_property(name, buffer, count);
        });
    play<"MsiSetPropertyW", decltype(MsiSetPropertyW)>(
        module, [this](MSIHANDLE session, LPCWSTR name, LPCWSTR value) {
            const auto code = failure(installer_call::set_property, session);
            if (!code) {
                set_property(name, value == nullptr ? L"" : value);
            }
            return code.value_or(ERROR_SUCCESS);
        });
}

void scripted_session::play_records(HMODULE module)
{
    play<"MsiCreateRecord", decltype(MsiCreateRecord)>(module, [this](UINT) {
        records_[++last_record_] = L"";
        return last_record_;
    });
    play<"MsiRecordSetStringW", decltype(MsiRecordSetStringW)>(
        module, [this](MSIHANDLE record, UINT field, LPCWSTR text) {
            EXPECT_EQ(field, 0U) << "only field 0 is played";
            const auto found = records_.find(record);
            if (found == records_.end()) {
                return UINT{ERROR_INVALID_HANDLE};
            }
            found->second = text;
            return UINT{ERROR_SUCCESS};
        });
    play<"MsiProcessMessage", decltype(MsiProcessMessage)>(
        module, [this](MSIHANDLE session, INSTALLMESSAGE type, MSIHANDLE record) {
            if (session != SESSION || !records_.contains(record)) {
                return -1;
            }
            messages_.push_back({static_cast<UINT>(type), records_[record]});
            return IDOK;
        });
    play<"MsiCloseHandle", decltype(MsiCloseHandle)>(module, [this](MSIHANDLE handle) {
        EXPECT_EQ(records_.erase(handle), 1U) << "closed, but not an open record: " << handle;
        return UINT{ERROR_SUCCESS};
    });
}

void scripted_session::play_folders(HMODULE module)
{
    // As the installer does, the folder's property gets a separator at its end.
    play<"MsiSetTargetPathW", decltype(MsiSetTargetPathW)>(
        module, [this](MSIHANDLE session, LPCWSTR folder, LPCWSTR path) {
            const auto code = failure(installer_call::set_target_path, session);
            if (!code) {
                const std::wstring pinned = path;
                set_property(folder, pinned.ends_with(L'\\') ? pinned : pinned + L'\\');
            }
            return code.value_or(ERROR_SUCCESS);
        });
    play<"MsiGetComponentPathExW", component_path_query>(
        module,
        [this](
            LPCWSTR product,
            LPCWSTR component,
            LPCWSTR user,
            MSIINSTALLCONTEXT context,
            LPWSTR path,
            LPDWORD size) {
            if (const auto state = failure(installer_call::get_component_path, SESSION)) {
                return static_cast<INSTALLSTATE>(*state);
            }
            const auto found = key_paths_.find(std::wstring{product} + component);
            if (found == key_paths_.end() || user != nullptr || context != MSIINSTALLCONTEXT_MACHINE) {
                return INSTALLSTATE_UNKNOWN;
            }
            if (found->second.size() >= *size) {
                return INSTALLSTATE_MOREDATA;
            }
            *std::ranges::copy(found->second, path).out = L'\0';
            *size = static_cast<DWORD>(found->second.size());
            return INSTALLSTATE_LOCAL;
        });
}

} // namespace test_support
