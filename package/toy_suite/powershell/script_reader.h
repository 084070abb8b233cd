#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace toy_powershell {

// Runs from a script's front to its end.
class script_reader {
public:
    explicit script_reader(std::wstring_view text) : rest_{text} {}

    [[nodiscard]] bool at_end() const { return rest_.empty(); }

    // Takes what `pattern` describes, where the text goes on with it: character for character, but "%s"
    // stands for one literal in single quotes and "%d" for decimal digits, whose values are put behind
    // `values`. Otherwise nothing is taken and `values` is as it was.
    bool take(std::wstring_view pattern, std::vector<std::wstring>& values);

private:
    std::wstring_view rest_;
};

} // namespace toy_powershell
