#include "config/syntax_error.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config/key_mask.h"

namespace vesk::controller {

namespace {

constexpr std::string_view lineBlanks = " \t\r";
constexpr std::string_view bareKeyCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";

/// Two parts of the parser's description, what it was reading and why it stopped, and our message
/// for them.
struct Meaning {
    std::string_view reading;
    std::string_view reason;
    std::string_view words;
};

constexpr std::string_view noValue = "the value is not a number, true, false or a string in quotes";

/// The first match counts.
constexpr std::array<Meaning, 27> meanings{{
    {"key-value pair", "cannot redefine", "the key is given twice"},
    {"key-value pair", "expected '='", R"("=" is missing after the key)"},
    {"key-value pair", "expected value", "the value is missing"},
    {"key-value pair", "", "there is text after the value"},
    {"string", "escape sequence",
     "the escape sequence is unknown; write a backslash as two backslashes"},
    {"string", "", "the string has no closing quote"},
    {"unicode scalar", "", "the escape sequence is unknown; write a backslash as two backslashes"},
    {"table header", "expected ']'", R"("]" is missing after the name of the table)"},
    {"table header", "blank", "the table has no name"},
    {"table header", "", "there is text after the name of the table"},
    {"inline table", R"(saw '\n')", "the table in braces is not closed on its line"},
    {"inline table", "end-of-file", "the table in braces is not closed on its line"},
    {"inline table", "dangling comma", "there is a comma before the closing brace"},
    {"inline table", "expected comma", "a comma is missing"},
    {"inline table", "", "a key is missing in the table in braces"},
    {"array", "expected value", "a value is missing in the array"},
    {"array", "", R"(the array is not closed by "]", or a comma is missing in it)"},
    {"parsing key:", "", "a name is empty or has characters that need quotes"},
    {"integer", "leading zeroes", "a number begins with 0"},
    {"integer", "64 bits", "the number is too large; a key must be in quotes"},
    {"integer", "", noValue},
    {"parsing value", "", noValue},
    {"boolean", "", noValue},
    {"floating-point", "", noValue},
    {"comment", "", "a comment has a control character"},
    {"root table", "", "the line begins with neither a key nor a table"},
    {"utf-8", "", "a character is not UTF-8"},
}};

bool contains(std::string_view text, std::string_view piece) {
    return text.find(piece) != std::string_view::npos;
}

std::string_view inWords(std::string_view description) {
    const auto* const meaning = std::ranges::find_if(meanings, [&](const Meaning& it) {
        return contains(description, it.reading) && contains(description, it.reason);
    });
    return meaning != meanings.end() ? meaning->words : noValue;
}

std::vector<std::string_view> linesOf(std::string_view text, std::size_t count) {
    std::vector<std::string_view> lines;
    while (lines.size() < count) {
        const std::size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return lines;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(lineBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(lineBlanks) - first + 1);
}

/// The name in "[name]" or "[[name]]"; nothing for any other line.
std::optional<std::string_view> tableNamedBy(std::string_view line) {
    line = trimmed(line);
    if (!line.starts_with('[')) {
        return std::nullopt;
    }
    line.remove_prefix(std::min(line.find_first_not_of('['), line.size()));
    return trimmed(line.substr(0, line.find(']')));
}

/// Reads the beginning of a line and finds the key to which its end belongs.
class KeyPath {
 public:
    explicit KeyPath(std::string_view begin) {
        for (const char c : begin) {
            if (quote_ != '\0') {
                quote_ = c == quote_ ? '\0' : quote_;
            } else {
                take(c);
            }
        }
    }

    /// "from_peer.key"; "" if there is none.
    std::string text() const {
        std::string path;
        for (const std::string& key : outer_) {
            path += key.empty() || path.empty() ? key : "." + key;
        }
        return path + (key_.empty() || path.empty() ? key_ : "." + key_);
    }

 private:
    void take(char c) {
        switch (c) {
            case '"':
            case '\'':
                quote_ = c;
                break;
            case '=':
                inValue_ = true;
                break;
            case '{':
                outer_.push_back(std::exchange(key_, ""));
                inValue_ = false;
                break;
            case '}':
                key_ = outer_.empty() ? "" : outer_.back();
                outer_.resize(outer_.empty() ? 0 : outer_.size() - 1);
                inValue_ = true;
                break;
            case ',':
                key_.clear();
                inValue_ = false;
                break;
            default:
                if (!inValue_ && bareKeyCharacters.find(c) != std::string_view::npos) {
                    key_ += c;
                }
        }
    }

    std::vector<std::string> outer_;
    std::string key_;
    char quote_ = '\0';
    bool inValue_ = false;
};

/// The line without its strings in quotes: these are values, among which keys are allowed.
std::string withoutQuotedTexts(std::string_view line) {
    std::string rest;
    while (!line.empty()) {
        const std::size_t open = line.find_first_of("\"'");
        const std::size_t close =
            open == std::string_view::npos ? open : line.find(line[open], open + 1);
        rest += line.substr(0, close == std::string_view::npos ? close : open);
        line.remove_prefix(close == std::string_view::npos ? line.size() : close + 1);
    }
    return rest;
}

/// "table flows.alice, key from_peer.key, column 23"; a table or key that does not exist is left
/// out.
std::string placeOf(const std::vector<std::string_view>& lines, std::size_t column) {
    std::string place;
    for (auto line = lines.rbegin() + 1; line < lines.rend() && place.empty(); ++line) {
        if (const std::optional<std::string_view> table = tableNamedBy(*line)) {
            place = "table " + shownName(*table) + ", ";
        }
    }
    if (!tableNamedBy(lines.back())) {
        const std::string key = KeyPath(lines.back().substr(0, column - 1)).text();
        // The name may be the first group of digits of a key.
        const bool mayBePiece = mayHoldKey(withoutQuotedTexts(lines.back()));
        const std::string shown = mayBePiece ? "..." : shownName(key);
        place += key.empty() ? "" : "key " + shown + ", ";
    }
    return place + "column " + std::to_string(column);
}

/// The message for the second header of a table, which is the last line.
std::string describeRedefinition(const std::vector<std::string_view>& lines,
                                 std::string_view description) {
    const std::string_view name = tableNamedBy(lines.back()).value_or("");
    const std::string table = "table " + shownName(name);
    if (!contains(description, "existing table")) {
        return table + " has the name of another key";
    }
    const auto first = std::find_if(lines.begin(), lines.end() - 1, [&](std::string_view line) {
        return tableNamedBy(line) == name;
    });
    const bool found = first != lines.end() - 1;
    return table + " is defined twice" +
           (found ? ", first on line " + std::to_string(first - lines.begin() + 1) : "");
}

}  // namespace

Problem describeSyntaxError(std::string_view text, const toml::parse_error& error) {
    const toml::source_position position = error.source().begin;
    const std::string_view description = error.description();
    const std::vector<std::string_view> lines = linesOf(text, std::max(position.line, 1U));
    if (contains(description, "table header") && contains(description, "cannot redefine")) {
        return {position.line, describeRedefinition(lines, description)};
    }
    const std::size_t column = std::max(position.column, 1U);
    return {position.line, placeOf(lines, column) + ": " + std::string(inWords(description))};
}

}  // namespace vesk::controller
