#include "commands/command.h"

#include <algorithm>
#include <array>
#include <set>

#include "config/label_text.h"

namespace vesk::controller {

namespace {

constexpr std::array<std::string_view, 4> keyNames{"down_in_key", "down_out_key", "up_in_key",
                                                   "up_out_key"};
/// The maximum number of subjects in a log line.
constexpr std::size_t handful = 5;

constexpr std::string_view blanks = " \t\r";

bool isKeyName(std::string_view word) {
    return std::ranges::find(keyNames, word) != keyNames.end();
}

std::string maskOf(std::string_view digits) {
    return "<key of " + std::to_string(digits.size() / 2) + " bytes>";
}

}  // namespace

std::string toLine(const Command& command) {
    std::string line = command.word;
    for (const auto& [name, value] : command.attributes) {
        line.append(" ").append(name).append(" ").append(value);
    }
    return line;
}

std::string describe(const Command& command) {
    return command.label == 0
               ? command.subject
               : command.subject + " (label " + labelInBothForms(command.label) + ")";
}

std::string listSubjects(const std::vector<Command>& commands) {
    std::string list;
    // Names of flows may be equal after keys in them were masked.
    std::set<std::pair<std::string_view, std::uint32_t>> subjects;
    for (const Command& command : commands) {
        if (subjects.emplace(command.subject, command.label).second && subjects.size() <= handful) {
            list.append(list.empty() ? "" : ", ").append(command.subject);
        }
    }
    if (subjects.size() > handful) {
        list += " and " + std::to_string(subjects.size() - handful) + " more";
    }
    return list;
}

std::string maskKeys(std::string_view text) {
    std::string result;
    bool secret = false;
    while (!text.empty()) {
        const std::size_t length = std::min(text.find_first_of(blanks), text.size());
        const std::string_view word = text.substr(0, length);
        if (secret && !word.empty()) {
            result += maskOf(word);
        } else {
            result += word;
        }
        secret = isKeyName(word) || (secret && word.empty());
        text.remove_prefix(length);
        if (!text.empty()) {
            result += text.front();
            text.remove_prefix(1);
        }
    }
    return result;
}

}  // namespace vesk::controller
