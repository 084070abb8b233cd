#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace custom_actions {

// 0x2001F: for a key that is read and changed.
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

// An open registry key, closed with its scope, over Windows' functions for one kind of characters. Every
// function returns the status of the Windows call, unless it says otherwise. If that is not ERROR_SUCCESS, an
// output is unchanged, and a key that was to be opened is closed. An empty value name is the key's default
// value.
template <
    class Char,
    auto OpenKey,
    auto CreateKey,
    auto QueryValue,
    auto SetValue,
    auto DeleteValue,
    auto DeleteKey,
    auto EnumerateKey,
    auto QueryKey>
class registry_key {
public:
    using text = std::basic_string<Char>;

    [[nodiscard]] HKEY get() const noexcept { return handle_.get(); }

    LSTATUS open(HKEY parent, const text& path, REGSAM access) noexcept
    {
        return OpenKey(parent, path.c_str(), 0, access, handle_.put());
    }

    // Opens the key, or makes it if it is not there.
    LSTATUS create(HKEY parent, const text& path, REGSAM access) noexcept
    {
        constexpr DWORD options = REG_OPTION_NON_VOLATILE;
        HKEY* const key = handle_.put();
        return CreateKey(parent, path.c_str(), 0, nullptr, options, access, nullptr, key, nullptr);
    }

    void close() noexcept { handle_ = {}; }

    // Reads a value of at most `limit` bytes; ERROR_MORE_DATA if it is longer.
    LSTATUS read(const Char* name, DWORD limit, registry_value& value) const
    {
        return read_sized(name, limit, value);
    }

    // Reads a value into `expected` bytes, and a longer one once more, whole: for what somebody else wrote
    // and what would be lost if it were not read.
    LSTATUS read_whole(const Char* name, DWORD expected, registry_value& value) const
    {
        DWORD size = expected;
        const LSTATUS status = read_sized(name, size, value);
        return status == ERROR_MORE_DATA ? read_sized(name, size, value) : status;
    }

    // The wide text of a value that is read likewise; empty if there is none that can be read.
    [[nodiscard]] std::wstring whole_text(const Char* name, DWORD expected) const
    {
        registry_value value;
        read_whole(name, expected, value);
        return value.wide_text().value_or(L"");
    }

    // ERROR_SUCCESS if the value is there, whatever its content.
    LSTATUS find_value(const Char* name) const noexcept
    {
        return QueryValue(get(), name, nullptr, nullptr, nullptr, nullptr);
    }

    // Writes these bytes, with nothing added.
    LSTATUS write(const Char* name, DWORD type, std::string_view bytes) const noexcept
    {
        const auto* const data = reinterpret_cast<const BYTE*>(bytes.data());
        return SetValue(get(), name, 0, type, data, static_cast<DWORD>(bytes.size()));
    }

    // Writes `content` and its terminating zero as REG_SZ.
    LSTATUS write_text(const Char* name, const text& content) const noexcept
    {
        const auto* const bytes = reinterpret_cast<const char*>(content.c_str());
        return write(name, REG_SZ, {bytes, (content.size() + 1) * sizeof(Char)});
    }

    // Writes a number; `type` is REG_DWORD or REG_QWORD, as its size.
    template <class Number>
    LSTATUS write_number(const Char* name, DWORD type, const Number& number) const noexcept
    {
        return write(name, type, {reinterpret_cast<const char*>(&number), sizeof number});
    }

    LSTATUS delete_value(const Char* name) const noexcept { return DeleteValue(get(), name); }

    // Deletes a subkey that has no subkeys of its own.
    LSTATUS delete_subkey(const Char* name) const noexcept { return DeleteKey(get(), name); }

    // The name of the subkey with this index; ERROR_MORE_DATA if it has 256 characters or more.
    LSTATUS enumerate_subkey(DWORD index, text& name) const
    {
        std::array<Char, 256> found{};
        auto length = static_cast<DWORD>(found.size());
        const LSTATUS status =
            EnumerateKey(get(), index, found.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_SUCCESS) {
            name.assign(found.data(), length);
        }
        return status;
    }

    // How many subkeys and values the key has.
    LSTATUS count(DWORD& subkeys, DWORD& values) const noexcept
    {
        DWORD* const no = nullptr;
        return QueryKey(get(), nullptr, no, no, &subkeys, no, no, &values, no, no, no, nullptr);
    }

private:
    // `size` has the size of the buffer and gets the value's.
    LSTATUS read_sized(const Char* name, DWORD& size, registry_value& value) const
    {
        registry_value found{.type = REG_NONE, .data = std::string(size, '\0')};
        auto* const data = reinterpret_cast<BYTE*>(found.data.data());
        const LSTATUS status = QueryValue(get(), name, nullptr, &found.type, data, &size);
        if (status == ERROR_SUCCESS) {
            found.data.resize(size);
            value = std::move(found);
        }
        return status;
    }

    registry_key_handle handle_;
};

using ansi_registry_key = registry_key<
    char,
    RegOpenKeyExA,
    RegCreateKeyExA,
    RegQueryValueExA,
    RegSetValueExA,
    RegDeleteValueA,
    RegDeleteKeyA,
    RegEnumKeyExA,
    RegQueryInfoKeyA>;

inline LSTATUS delete_key_of_this_view(HKEY key, const wchar_t* name) noexcept
{
    return RegDeleteKeyExW(key, name, 0, 0);
}

using wide_registry_key = registry_key<
    wchar_t,
    RegOpenKeyExW,
    RegCreateKeyExW,
    RegQueryValueExW,
    RegSetValueExW,
    RegDeleteValueW,
    delete_key_of_this_view,
    RegEnumKeyExW,
    RegQueryInfoKeyW>;

// Reads a number straight from a key. `flags` are those of RegGetValueW: the type, and the view if need be.
// Returns its status; `number` is unchanged if that is not ERROR_SUCCESS.
template <class Number>
LSTATUS read_number(HKEY root, const wchar_t* path, const wchar_t* name, DWORD flags, Number& number) noexcept
{
    DWORD size = sizeof number;
    return RegGetValueW(root, path, name, flags, nullptr, &number, &size);
}

} // namespace custom_actions
