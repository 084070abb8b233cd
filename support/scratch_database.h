#pragma once

#include "custom_actions/common/scoped_handle.h"

#include <windows.h>
#include <msi.h>

#include <string>

namespace test_support {

// An installer database in a temporary file, deleted at the end, with the summary information and the
// properties that every package needs. Every function throws std::system_error with the installer's code.
class scratch_database {
public:
    explicit scratch_database(const std::wstring& product_code);
    ~scratch_database();

    scratch_database(const scratch_database&) = delete;
    scratch_database& operator=(const scratch_database&) = delete;

    // Executes a statement; its question marks take the fields of `record` in order.
    void run(const std::wstring& sql, MSIHANDLE record = 0) const;

    void add_property(const std::wstring& name, const std::wstring& value) const;

    // Commits and closes the file, for the installer to open. Nothing can be added afterwards.
    void finish();

    [[nodiscard]] MSIHANDLE handle() const noexcept { return database_.get(); }

    [[nodiscard]] const std::wstring& path() const noexcept { return path_; }

private:
    std::wstring path_;
    custom_actions::record_handle database_; // MsiCloseHandle closes databases too
};

} // namespace test_support
