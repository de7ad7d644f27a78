// Splits the kernel's text files into lines, words and numbers. Used by the parsers of this folder
// and by child/flow_sockets; any thread.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace vesk::controller {

/// Removes the next line from the text and returns it without its newline; empty at the end.
std::string_view takeLine(std::string_view& text);

/// Removes the next word from the line and returns it; empty if none is left. Blanks, tabs and
/// newlines separate words.
std::string_view takeWord(std::string_view& line);

/// The number in the word; none if the word contains anything else.
template <class Number>
std::optional<Number> parseWord(std::string_view word, int base = 10) {
    Number number{};
    const char* const wordEnd = word.data() + word.size();
    const auto [end, error] = std::from_chars(word.data(), wordEnd, number, base);
    if (error != std::errc() || end != wordEnd) {
        return std::nullopt;
    }
    return number;
}

}  // namespace vesk::controller
