#include "tests/support/installation.h"

#include "tests/support/child_process.h"

#include <msi.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace test_support {
namespace {

// The text of the log in one byte a character.
std::string as_bytes(const std::string& content)
{
    if (!content.starts_with("\xFF\xFE")) {
        return content;
    }
    std::string bytes;
    for (std::size_t i = 2; i + 1 < content.size(); i += 2) {
        const bool ascii = content[i + 1] == 0 && static_cast<unsigned char>(content[i]) < 0x80;
        bytes += ascii ? content[i] : '?';
    }
    return bytes;
}

} // namespace

bool machine_is_disposable()
{
    return std::getenv("DISPOSABLE_MACHINE") != nullptr;
}

std::wstring sample_package(const std::wstring& version)
{
    return std::filesystem::path{this_program()}.parent_path() / L"package" /
           (L"quorbel-" + version + L".msi");
}

std::vector<std::string> installation::lines_after(const std::string& prefix) const
{
    std::vector<std::string> found;
    for (const std::string& line : lines) {
        if (line.starts_with(prefix)) {
            found.push_back(line.substr(prefix.size()));
        }
    }
    return found;
}

std::vector<std::string> read_log(const std::wstring& path)
{
    std::ifstream file{std::filesystem::path{path}, std::ios::binary};
    if (!file.is_open()) {
        throw std::runtime_error{"no installer log"};
    }
    std::ostringstream content;
    content << file.rdbuf();
    const std::string text = as_bytes(content.str());
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const bool carriage_return = end > start && text[end - 1] == '\r';
        lines.push_back(text.substr(start, end - start - (carriage_return ? 1 : 0)));
        start = end + 1;
    }
    return lines;
}

installation run_installer(const std::wstring& package, const std::wstring& properties)
{
    const std::filesystem::path log = std::filesystem::temp_directory_path() /
                                      (L"install-" + std::to_wstring(GetCurrentProcessId()) + L".log");
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    MsiEnableLogW(INSTALLLOGMODE_VERBOSE | 0x1FFF, log.c_str(), 0);
    const UINT result = MsiInstallProductW(package.c_str(), properties.c_str());
    MsiEnableLogW(0, nullptr, 0);
    installation done{.result = result, .lines = read_log(log)};
    std::filesystem::remove(log);
    return done;
}

void remove_sample_packages()
{
    wchar_t product[39];
    while (MsiEnumRelatedProductsW(L"{5B6E3C58-8E9B-4C0E-9C5B-6B7A1D0F4E21}", 0, 0, product) ==
           ERROR_SUCCESS) {
        MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
        if (MsiConfigureProductW(product, INSTALLLEVEL_DEFAULT, INSTALLSTATE_ABSENT) != ERROR_SUCCESS) {
            throw std::runtime_error{"cannot remove the sample package that is on the machine"};
        }
    }
}

} // namespace test_support
