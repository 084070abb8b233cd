#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace toy_powershell {

// Reads a script from front to end.
class script_reader {
public:
    explicit script_reader(std::wstring_view text) : rest_{text} {}

    [[nodiscard]] bool at_end() const { return rest_.empty(); }

    // Consumes `pattern` if the rest of the text begins with it. In the pattern, "%s" matches a literal in
    // single quotes and "%d" decimal digits; their values are appended to `values`. Without a match nothing
    // changes.
    bool take(std::wstring_view pattern, std::vector<std::wstring>& values);

private:
    std::wstring_view rest_;
};

} // namespace toy_powershell
