#pragma once

#include "support/real_session.h"
#include "tests/support/failing_import.h"

#include <windows.h>
#include <msi.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace test_support {

void PrintTo(const posted_message& message, std::ostream* out);

// The functions of msi.dll of which a failure can be asked.
enum class installer_call { get_property, set_property, set_target_path, get_component_path };

// Plays the installer for one module: while it lives, the module's calls to msi.dll come here. It keeps
// properties, records and the messages in the order in which they came; a record that is still open at the
// end, or closed twice, fails the test. One can live at a time.
class scripted_session {
public:
    // Throws std::runtime_error where `module` calls a function of msi.dll that is not played here. The test
    // program itself is let off, since it talks to the real installer as well.
    explicit scripted_session(HMODULE module);
    ~scripted_session();

    scripted_session(const scripted_session&) = delete;
    scripted_session& operator=(const scripted_session&) = delete;

    [[nodiscard]] MSIHANDLE handle() const noexcept;

    void set_property(const std::wstring& name, const std::wstring& value);
    [[nodiscard]] std::optional<std::wstring> property(const std::wstring& name) const;

    // Has a component of a product installed on this machine, for every user, with this key path.
    void install_component(
        const std::wstring& product, const std::wstring& component, const std::wstring& key_path);

    // The n-th call from here on (1 is the next) fails with `code`, an INSTALLSTATE where it asks for a
    // component.
    void fail(installer_call call, UINT code = ERROR_FUNCTION_FAILED, unsigned nth = 1);

    [[nodiscard]] const std::vector<posted_message>& messages() const noexcept { return messages_; }

    [[nodiscard]] std::size_t open_records() const noexcept { return records_.size(); }

private:
    template <function_name Name, class Function, class Answer>
    void play(HMODULE module, Answer answer);

    void play_properties(HMODULE module);
    void play_records(HMODULE module);
    void play_folders(HMODULE module);

    UINT get_property(LPCWSTR name, LPWSTR buffer, LPDWORD count) const;

    // The code with which this call fails, planned or since it names another session.
    [[nodiscard]] std::optional<UINT> failure(installer_call call, MSIHANDLE session);

    std::map<std::wstring, std::wstring> properties_;
    std::map<std::wstring, std::wstring> key_paths_; // by product and component
    std::map<MSIHANDLE, std::wstring> records_;      // the open ones, with their field 0
    MSIHANDLE last_record_;
    std::vector<posted_message> messages_;

    struct planned_failure {
        unsigned calls_left;
        UINT code;
    };

    std::map<installer_call, planned_failure> failures_;
    std::set<std::string> played_;
    std::vector<std::shared_ptr<void>> interceptions_;
};

} // namespace test_support
