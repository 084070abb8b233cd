#include "tests/support/documented_messages.h"

#include "custom_actions/common/text.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string_view>

namespace test_support {
namespace {

using custom_actions::widen;

// What a placeholder stands for, as a regular expression. All others are numbers.
const std::map<std::string, std::string> PLACEHOLDERS{
    {"ids", R"(\d+( \d+)*)"},
    {"version", R"(\d+\.\d+\.\d+\.\d+)"},
    {"file", R"([A-Z]:\\[^|]+)"},
    {"folder", R"([A-Z]:\\[^|]+)"},
    {"SID", R"(S-1-[-\d]+)"},
    {"task", R"(QBL-EarlyRecovery-\{[-\dA-F]{36}\})"},
    {"operation", R"((capture|install|rollback)-\d|capture-folders|restore-runtime|open-whats-new)"},
    {"command", R"(powershell\.exe -NoProfile -ExecutionPolicy Bypass -Command ".+")"},
    {"text", ".+"},
    {"empty line", "\n\n"}};

struct kind {
    std::string_view heading;
    UINT type;
    std::string prefix;
    bool reports_failure;
};

// What a heading means.
const kind KINDS[]{
    {"Log line", INSTALLMESSAGE_INFO, "", false},
    {"Log line of a failure", INSTALLMESSAGE_INFO, "", true},
    {"Error", INSTALLMESSAGE_ERROR, "", true},
    {"Message", INSTALLMESSAGE_INFO, "Controlled upgrade: ", true},
    {"Message", INSTALLMESSAGE_ERROR, "Quorbel upgrade: ", true},
    {"Notice", INSTALLMESSAGE_USER | UINT{MB_ICONINFORMATION}, "", false}};

// `messages` is for "<messages>".
std::string pattern_of(const std::string& text, const std::string& messages = {})
{
    static const std::regex piece{R"(<([A-Za-z ]+)>|[^<]+|<)"};
    static const std::regex special{R"([.^$|()\[\]{}*+?\\])"};
    std::string pattern;
    for (std::sregex_iterator at{text.begin(), text.end(), piece}, end; at != end; ++at) {
        const auto known = PLACEHOLDERS.find((*at)[1]);
        if ((*at)[1] == "messages") {
            pattern += messages;
        } else if ((*at)[1].matched) {
            pattern += "(?:" + (known == PLACEHOLDERS.end() ? R"(\d+)" : known->second) + ')';
        } else {
            pattern += std::regex_replace(at->str(), special, R"(\$&)");
        }
    }
    return pattern;
}

std::vector<std::string> quoted(const std::string& line)
{
    static const std::regex name{"`([^`]+)`"};
    std::vector<std::string> found;
    for (std::sregex_iterator at{line.begin(), line.end(), name}, end; at != end; ++at) {
        found.push_back((*at)[1]);
    }
    return found;
}

} // namespace

std::vector<documented_text> read_documented_texts()
{
    static const std::regex list_of_actions{R"((For|and for) (`\w+`(,? and |, |,|\.))+)"};
    static const std::regex head{
        R"(\| (Log line|Log line of a failure|Error|Message|Notice|Standard output) \|.*)"};
    static const std::regex row{R"((\| |- )`([^`]+)`( \| ([^|]*) \|.*)?)"};
    std::vector<documented_text> texts;
    std::vector<std::string> actions;
    std::string heading;
    bool has_calls = false;
    std::ifstream file{SOURCE_DIR "/docs/actions.md"};
    for (std::string line; std::getline(file, line);) {
        std::smatch part;
        if (line.starts_with('#')) {
            actions = {line.substr(line.find(' ') + 1)};
        } else if (std::regex_match(line, list_of_actions)) {
            std::ranges::copy(quoted(line), std::back_inserter(actions));
        } else if (std::regex_match(line, part, head)) {
            heading = part[1];
            has_calls = line.find("| Call |") != std::string::npos;
        } else if (line.empty()) {
            heading = "Log line"; // of a list
            has_calls = false;
        } else if (std::regex_match(line, part, row) && (part[1] == "- " || part[4].matched)) {
            texts.push_back(
                {actions, heading, part[2], has_calls ? quoted(part[4]) : std::vector<std::string>{}});
        }
    }
    return texts;
}

documented_messages::documented_messages(const std::string& action)
{
    std::vector<documented_text> texts = read_documented_texts();
    std::erase_if(texts, [&](const auto& other) { return std::ranges::count(other.actions, action) == 0; });
    // Several in one message are separated by "; ", and so is what failed later.
    std::string any;
    for (const auto& [actions, heading, text, calls] : texts) {
        if (heading == "Message" && !text.ends_with("<messages>")) {
            any += (any.empty() ? "" : "|") + pattern_of(text);
        }
    }
    const std::string several = "(?:(?:; rollback preparation: )?(?:" + any + ")(?:; )?)+";
    for (const auto& [actions, heading, text, calls] : texts) {
        for (const auto& [of_heading, type, prefix, reports_failure] : KINDS) {
            if (heading == of_heading) {
                const std::wstring pattern = widen(prefix + pattern_of(text, several));
                messages_.push_back({type, std::wregex{pattern}, reports_failure});
            }
        }
        for (const std::string& function : calls) {
            not_said_.emplace(std::pair{function, text}, widen(pattern_of(text)));
        }
    }
}

const documented_messages::message* documented_messages::find(const posted_message& posted)
{
    const auto [known, is_new] = found_.try_emplace({posted.type, posted.text});
    if (is_new) {
        const auto match = std::ranges::find_if(messages_, [&](const message& candidate) {
            return candidate.type == posted.type && std::regex_match(posted.text, candidate.whole);
        });
        known->second = match == messages_.end() ? nullptr : &*match;
    }
    return known->second;
}

void documented_messages::note(const std::string& function, const std::wstring& said)
{
    std::erase_if(not_said_, [&](const auto& expected) {
        return expected.first.first == function && std::regex_search(said, expected.second);
    });
}

std::string documented_messages::never_said() const
{
    std::string lines;
    for (const auto& [expected, pattern] : not_said_) {
        lines.append(expected.first).append(" fails: \"").append(expected.second).append("\"\n");
    }
    return lines;
}

} // namespace test_support
