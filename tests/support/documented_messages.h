#pragma once

#include "support/real_session.h"

#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace test_support {

// A text that docs/actions.md lists for some actions, under one of the headings of its tables: "Log line",
// "Log line of a failure", "Error", "Message", "Notice" or "Standard output".
struct documented_text {
    std::vector<std::string> actions;
    std::string heading;
    std::string text;               // with <placeholders>
    std::vector<std::string> calls; // the functions whose failure the text reports
};

// All of them, in the document's order.
std::vector<documented_text> read_documented_texts();

// What one action is documented to post.
class documented_messages {
public:
    struct message {
        UINT type;
        std::wregex whole;
        bool reports_failure;
    };

    explicit documented_messages(const std::string& action);

    // The documented message that this is, to its type and its last letter; null if there is none.
    const message* find(const posted_message& posted);

    // Notes what the action said when this function failed.
    void note(const std::string& function, const std::wstring& said);

    // The documented reports of a failing function that were never noted, a line each.
    [[nodiscard]] std::string never_said() const;

private:
    std::vector<message> messages_;
    std::map<std::pair<UINT, std::wstring>, const message*> found_;
    std::map<std::pair<std::string, std::string>, std::wregex> not_said_; // by function and text
};

} // namespace test_support
