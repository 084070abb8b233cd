#include "custom_actions/packages/powershell.h"
#include "custom_actions/upgrade/scripts.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace custom_actions::controlled_upgrade {
namespace {

std::vector<std::wstring> scripts(const std::wstring& folder, const std::wstring& workspace)
{
    const context upgrade{
        .product_directory = folder, .workspace = workspace, .session_id = 42, .user_sid = L"S-1-5-18"};
    const std::wstring archive = workspace + L"\\a.msix";
    return {
        capture_script(archive),
        registration_script(archive, folder),
        removal_script(archive),
        capture_folders_script(upgrade),
        restore_runtime_script(upgrade, true),
        whats_new_script(upgrade)};
}

std::wstring replaced(std::wstring text, const std::wstring& from, const std::wstring& to)
{
    for (std::size_t at = text.find(from); at != std::wstring::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// FNV-1a over the text's units.
std::uint64_t fingerprint(const std::wstring& text)
{
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const wchar_t unit : text) {
        hash = (hash ^ unit) * 0x100000001B3;
    }
    return hash;
}

// Letter by letter: these texts are an interface, and were taken from its description, not from the code.
TEST(Scripts, are_as_agreed)
{
    std::vector<std::wstring> found = scripts(L"P", L"W");
    found.push_back(restore_runtime_script(
        {.product_directory = L"P", .workspace = L"W", .session_id = 42, .user_sid = {}}, false));
    const std::vector<std::uint64_t> agreed{
        0x75391FEE69F228A4,
        0xF2C6FC70825862D1,
        0x6E9A7EB8E2CCDC27,
        0x9B65B3312AC00E9C,
        0x547E0A6936894552,
        0x15C9AFE94EEB7BD3,
        0x28A8BC4C6F2D328B};
    for (std::size_t i = 0; i != agreed.size(); ++i) {
        EXPECT_EQ(fingerprint(found[i]), agreed[i]) << std::string{found[i].begin(), found[i].end()};
    }
}

TEST(Scripts, take_folders_as_literals_alone)
{
    const std::wstring odd = L"C:\\It's; '$(x) `\" [\u00C4\u4E2D]''";
    const std::vector<std::wstring> plain = scripts(L"<P>", L"<W>");
    const std::vector<std::wstring> found = scripts(odd, odd + L"W");
    const std::wstring quoted = quote_powershell_literal(odd);
    const std::wstring inner = quoted.substr(1, quoted.size() - 2);
    for (std::size_t i = 0; i != plain.size(); ++i) {
        EXPECT_EQ(found[i], replaced(replaced(plain[i], L"<P>", inner), L"<W>", inner + L"W"));
    }
}

} // namespace
} // namespace custom_actions::controlled_upgrade
