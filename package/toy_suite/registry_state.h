#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace toy_suite {

// A registry key with a stand-in's state and settings, created if absent. The constructor and the writing
// functions throw std::runtime_error if the registry refuses.
class registry_state {
public:
    explicit registry_state(const std::wstring& path, HKEY root = HKEY_CURRENT_USER);
    ~registry_state();

    registry_state(const registry_state&) = delete;
    registry_state& operator=(const registry_state&) = delete;

    [[nodiscard]] std::optional<std::wstring> text(const wchar_t* name) const;
    [[nodiscard]] std::optional<DWORD> number(const wchar_t* name) const;
    [[nodiscard]] std::vector<std::wstring> list(const wchar_t* name) const;
    [[nodiscard]] std::vector<std::wstring> subkeys() const;

    // The key's REG_SZ values by name.
    [[nodiscard]] std::map<std::wstring, std::wstring> texts() const;

    void write(const wchar_t* name, const std::wstring& text) const;
    void write(const wchar_t* name, DWORD number) const;
    void write(const wchar_t* name, const std::vector<std::wstring>& texts) const;

    // True if there was one.
    bool remove_subkey(const std::wstring& name) const;

private:
    HKEY key_ = nullptr;
};

} // namespace toy_suite
