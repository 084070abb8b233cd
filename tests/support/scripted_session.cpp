#include "tests/support/scripted_session.h"

#include "support/pe_image.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <stdexcept>
#include <string_view>

namespace test_support {
namespace {

// Far from the small numbers that the real installer gives out, so that a call that is not played here fails.
constexpr MSIHANDLE SESSION = 0x5E550000;
constexpr MSIHANDLE FIRST_RECORD = 0x7EC00001;

constexpr std::array<std::string_view, 8> PLAYED_FUNCTIONS{
    "MsiGetPropertyW",
    "MsiSetPropertyW",
    "MsiCreateRecord",
    "MsiRecordSetStringW",
    "MsiProcessMessage",
    "MsiCloseHandle",
    "MsiSetTargetPathW",
    "MsiGetComponentPathExW",
};

scripted_session* active = nullptr;

std::string narrow(std::wstring_view text)
{
    std::string bytes;
    std::ranges::transform(text, std::back_inserter(bytes), [](wchar_t unit) {
        return unit < 0x80 ? static_cast<char>(unit) : '?';
    });
    return bytes;
}

bool is_installer_library(const std::string& library)
{
    return _stricmp(library.c_str(), "msi.dll") == 0;
}

} // namespace

void PrintTo(const posted_message& message, std::ostream* out)
{
    *out << "{0x" << std::hex << message.type << std::dec << ", \"" << narrow(message.text) << "\"}";
}

scripted_session::scripted_session(HMODULE module) : last_record_{FIRST_RECORD - 1}
{
    if (active != nullptr) {
        throw std::runtime_error{"a scripted session is active already"};
    }
    if (module != GetModuleHandleW(nullptr)) {
        for (const auto& import : pe_image{module}.imports()) {
            if (is_installer_library(import.library) &&
                std::ranges::find(PLAYED_FUNCTIONS, import.name) == PLAYED_FUNCTIONS.end()) {
                throw std::runtime_error{"not played by the scripted session: " + import.name};
            }
        }
    }
    patch(module, "MsiGetPropertyW", &get_property);
    patch(module, "MsiSetPropertyW", &set_property_value);
    patch(module, "MsiCreateRecord", &create_record);
    patch(module, "MsiRecordSetStringW", &set_string);
    patch(module, "MsiProcessMessage", &process_message);
    patch(module, "MsiCloseHandle", &close_handle);
    patch(module, "MsiSetTargetPathW", &set_target_path);
    patch(module, "MsiGetComponentPathExW", &get_component_path);
    active = this;
}

scripted_session::~scripted_session()
{
    active = nullptr;
    EXPECT_EQ(records_.size(), 0U) << "records left open";
    for (const auto& [call, planned] : failures_) {
        ADD_FAILURE() << "a planned failure was never reached: call kind " << static_cast<int>(call);
    }
}

template <class Function>
void scripted_session::patch(HMODULE module, const char* name, Function* replacement)
{
    const auto imports = pe_image{module}.imports();
    if (std::ranges::find(imports, name, &imported_function::name) == imports.end()) {
        return; // a test program is linked with what it calls alone
    }
    patches_.push_back(std::make_unique<import_patch<Function>>(module, name, replacement));
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

std::optional<UINT> scripted_session::failure(installer_call call)
{
    const auto planned = failures_.find(call);
    if (planned == failures_.end() || --planned->second.calls_left != 0) {
        return std::nullopt;
    }
    const UINT code = planned->second.code;
    failures_.erase(planned);
    return code;
}

std::string scripted_session::name_of(MSIHANDLE handle) const
{
    if (handle == SESSION) {
        return "session";
    }
    if (records_.contains(handle)) {
        return "record";
    }
    return handle == 0 ? "0" : "closed";
}

UINT WINAPI scripted_session::get_property(MSIHANDLE session, LPCWSTR name, LPWSTR buffer, LPDWORD count)
{
    active->calls_.push_back("MsiGetPropertyW(" + active->name_of(session) + ", " + narrow(name) + ")");
    if (const auto code = active->failure(installer_call::get_property)) {
        return *code;
    }
    if (session != SESSION) {
        return ERROR_INVALID_HANDLE;
    }
    if (buffer != nullptr && count == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring value = active->property(name).value_or(L"");
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

UINT WINAPI scripted_session::set_property_value(MSIHANDLE session, LPCWSTR name, LPCWSTR value)
{
    active->calls_.push_back("MsiSetPropertyW(" + active->name_of(session) + ", " + narrow(name) + ")");
    if (const auto code = active->failure(installer_call::set_property)) {
        return *code;
    }
    if (session != SESSION) {
        return ERROR_INVALID_HANDLE;
    }
    active->set_property(name, value == nullptr ? L"" : value);
    return ERROR_SUCCESS;
}

MSIHANDLE WINAPI scripted_session::create_record(UINT fields)
{
    active->calls_.push_back("MsiCreateRecord(" + std::to_string(fields) + ")");
    active->records_[++active->last_record_] = L"";
    return active->last_record_;
}

UINT WINAPI scripted_session::set_string(MSIHANDLE record, UINT field, LPCWSTR text)
{
    active->calls_.push_back(
        "MsiRecordSetStringW(" + active->name_of(record) + ", " + std::to_string(field) + ")");
    const auto found = active->records_.find(record);
    if (found == active->records_.end()) {
        return ERROR_INVALID_HANDLE;
    }
    if (field != 0) {
        ADD_FAILURE() << "only field 0 is played, not " << field;
        return ERROR_INVALID_PARAMETER;
    }
    found->second = text;
    return ERROR_SUCCESS;
}

int WINAPI scripted_session::process_message(MSIHANDLE session, INSTALLMESSAGE type, MSIHANDLE record)
{
    active->calls_.push_back(
        "MsiProcessMessage(" + active->name_of(session) + ", " + active->name_of(record) + ")");
    const auto found = active->records_.find(record);
    if (session != SESSION || found == active->records_.end()) {
        return -1;
    }
    active->messages_.push_back({static_cast<UINT>(type), found->second});
    return IDOK;
}

UINT WINAPI scripted_session::close_handle(MSIHANDLE handle)
{
    active->calls_.push_back("MsiCloseHandle(" + active->name_of(handle) + ")");
    if (active->records_.erase(handle) == 0) {
        ADD_FAILURE() << "closed, but not an open record: " << handle;
        return ERROR_INVALID_HANDLE;
    }
    return ERROR_SUCCESS;
}

// As the installer does, the folder's property gets a separator at its end.
UINT WINAPI scripted_session::set_target_path(MSIHANDLE session, LPCWSTR folder, LPCWSTR path)
{
    active->calls_.push_back("MsiSetTargetPathW(" + active->name_of(session) + ", " + narrow(folder) + ")");
    if (const auto code = active->failure(installer_call::set_target_path)) {
        return *code;
    }
    if (session != SESSION) {
        return ERROR_INVALID_HANDLE;
    }
    const std::wstring pinned = path;
    active->set_property(folder, pinned.ends_with(L'\\') ? pinned : pinned + L'\\');
    return ERROR_SUCCESS;
}

INSTALLSTATE WINAPI scripted_session::get_component_path(
    LPCWSTR product,
    LPCWSTR component,
    LPCWSTR user_sid,
    MSIINSTALLCONTEXT context,
    LPWSTR path,
    LPDWORD size)
{
    active->calls_.push_back("MsiGetComponentPathExW(" + narrow(product) + ", " + narrow(component) + ")");
    if (const auto state = active->failure(installer_call::get_component_path)) {
        return static_cast<INSTALLSTATE>(*state);
    }
    const auto found = active->key_paths_.find(std::wstring{product} + component);
    if (found == active->key_paths_.end() || user_sid != nullptr || context != MSIINSTALLCONTEXT_MACHINE) {
        return INSTALLSTATE_UNKNOWN;
    }
    if (found->second.size() >= *size) {
        return INSTALLSTATE_MOREDATA;
    }
    *std::ranges::copy(found->second, path).out = L'\0';
    *size = static_cast<DWORD>(found->second.size());
    return INSTALLSTATE_LOCAL;
}

} // namespace test_support
