#include "config/syntax_error.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "config/key_mask.h"
#include "config/syntax_place.h"

namespace vesk::controller {

namespace {

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
    {R"(after '\r')", "", "a carriage return is not followed by a line feed"},
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

/// What to report about a control character with which the text begins; empty if there is none. A
/// carriage return may end a line.
std::string_view controlCharacter(std::string_view text) {
    if (text.starts_with('\0')) {
        return "there is a NUL byte";
    }
    const unsigned char first = text.empty() ? ' ' : static_cast<unsigned char>(text.front());
    const bool allowed = first >= ' ' || first == '\t' || first == '\r';
    return allowed && first != '\x7f' ? std::string_view() : "there is a control character";
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
    const std::vector<std::string_view> lines = firstLines(text, std::max(position.line, 1U));
    if (contains(description, "table header") && contains(description, "cannot redefine")) {
        return {position.line, describeRedefinition(lines, description)};
    }
    const std::size_t column = std::max(position.column, 1U);
    const std::string_view character =
        controlCharacter(lines.back().substr(endOfCharacters(lines.back(), column - 1)));
    const std::string_view cause = character.empty() ? inWords(description) : character;
    return {position.line, placeOf(lines, column) + ": " + std::string(cause)};
}

}  // namespace vesk::controller
