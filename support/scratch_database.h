#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>
#include <msi.h>

#include <string>

namespace test_support {

// A database of the installer's in a temporary file, which goes with it: what a package must tell of itself,
// and its properties. Every function throws std::system_error with the installer's code.
class scratch_database {
public:
    explicit scratch_database(const std::wstring& product_code);
    ~scratch_database();

    scratch_database(const scratch_database&) = delete;
    scratch_database& operator=(const scratch_database&) = delete;

    // Each question mark of the statement takes the field of `record` with its number.
    void run(const std::wstring& sql, MSIHANDLE record = 0) const;

    void add_property(const std::wstring& name, const std::wstring& value) const;

    // Writes the file, so that the installer can read it, and closes it: nothing can be added any more.
    void finish();

    [[nodiscard]] MSIHANDLE handle() const noexcept { return database_.get(); }

    [[nodiscard]] const std::wstring& path() const noexcept { return path_; }

private:
    std::wstring path_;
    custom_actions::record_handle database_; // MsiCloseHandle closes every kind of the installer's handles
};

} // namespace test_support
