#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

namespace custom_actions {

// 0x2001F: for a key that is looked into and changed.
inline constexpr REGSAM KEY_READ_WRITE = KEY_READ | KEY_WRITE;

// KEY_WOW64_64KEY if this process runs under WOW64, so that a 32-bit process reaches the 64-bit view; else 0.
REGSAM native_registry_view() noexcept;

// A value as the registry has it.
struct registry_value {
    DWORD type = REG_NONE;
    std::string data; // every byte, with the terminating zero if there is one

    // What the ANSI functions read: the text up to its first zero.
    [[nodiscard]] std::string text() const { return data.substr(0, data.find('\0')); }

    // What the wide functions read: the text without its terminating zero. Nothing if the type is neither
    // REG_SZ nor REG_EXPAND_SZ, or if the data is neither empty nor an even number of bytes that end in a
    // zero character.
    [[nodiscard]] std::optional<std::wstring> wide_text() const;
};

// An open registry key, closed with its scope. Narrow names and texts go to Windows' ANSI functions, wide
// ones to the wide functions. Every function returns the status of the Windows call. If that is not
// ERROR_SUCCESS, an output is unchanged, and a key that was to be opened is closed. An empty value name is
// the key's default value.
class registry_key {
public:
    [[nodiscard]] HKEY get() const noexcept { return handle_.get(); }

    LSTATUS open(HKEY parent, const std::string& path, REGSAM access) noexcept;
    LSTATUS open(HKEY parent, const std::wstring& path, REGSAM access) noexcept;

    // Opens the key, or makes it if it is not there.
    LSTATUS create(HKEY parent, const std::string& path, REGSAM access) noexcept;
    LSTATUS create(HKEY parent, const std::wstring& path, REGSAM access) noexcept;

    void close() noexcept { handle_ = {}; }

    // Reads a value of at most `limit` bytes; ERROR_MORE_DATA if it is longer.
    LSTATUS read(const char* name, DWORD limit, registry_value& value) const;
    LSTATUS read(const wchar_t* name, DWORD limit, registry_value& value) const;

    // Reads a value into `expected` bytes, and a longer one once more, whole: for what somebody else wrote
    // and what would be lost if it were not read.
    LSTATUS read_whole(const char* name, DWORD expected, registry_value& value) const;

    // The wide text of a value that is read likewise; empty if there is none that can be read.
    [[nodiscard]] std::wstring whole_text(const wchar_t* name, DWORD expected) const;

    // ERROR_SUCCESS if the value is there, whatever its content.
    LSTATUS find_value(const char* name) const noexcept;

    // Writes `text` and its terminating zero as REG_SZ.
    LSTATUS write_text(const char* name, const std::string& text) const noexcept;
    LSTATUS write_text(const wchar_t* name, const std::wstring& text) const noexcept;

    // Writes these bytes, with nothing added, as REG_SZ.
    LSTATUS write_raw_text(const char* name, std::string_view bytes) const noexcept;

    // Writes a number; `type` is REG_DWORD or REG_QWORD, as its size.
    template <class Number>
    LSTATUS write_number(const wchar_t* name, DWORD type, Number number) const noexcept
    {
        const auto* const bytes = reinterpret_cast<const BYTE*>(&number);
        return RegSetValueExW(handle_.get(), name, 0, type, bytes, sizeof number);
    }

    LSTATUS delete_value(const char* name) const noexcept;
    LSTATUS delete_value(const wchar_t* name) const noexcept;

    // Deletes a subkey that has no subkeys of its own.
    LSTATUS delete_subkey(const std::string& name) const noexcept;
    LSTATUS delete_subkey(const wchar_t* name) const noexcept;

    // The name of the subkey with this index; ERROR_MORE_DATA if it has 256 characters or more.
    LSTATUS enumerate_subkey(DWORD index, std::string& name) const;
    LSTATUS enumerate_subkey(DWORD index, std::wstring& name) const;

    // The name of the value with this index.
    LSTATUS enumerate_value_name(DWORD index, std::wstring& name) const;

    // Whether the key has no subkeys; asked by the wide function. False if that cannot be told.
    [[nodiscard]] bool has_no_subkeys() const noexcept;

    // Whether the key has neither subkeys nor values; asked by the ANSI function. False if that cannot be
    // told.
    [[nodiscard]] bool is_empty() const noexcept;

private:
    registry_key_handle handle_;
};

// Reads a number straight from a key. `flags` are those of RegGetValueW: the type, and the view if need be.
// Returns its status; `number` is unchanged if that is not ERROR_SUCCESS.
template <class Number>
LSTATUS read_number(HKEY root, const wchar_t* path, const wchar_t* name, DWORD flags, Number& number) noexcept
{
    DWORD size = sizeof number;
    return RegGetValueW(root, path, name, flags, nullptr, &number, &size);
}

} // namespace custom_actions
