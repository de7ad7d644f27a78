// Lines, words and numbers of the kernel's text files. Used by the parsers of this folder; any
// thread.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace vesk::controller {

/// Takes the next line off the text, without its newline; empty at the end of the text.
std::string_view takeLine(std::string_view& text);

/// Takes the next word off the line. Words are separated by blanks, tabs and newlines; empty where
/// there is none left.
std::string_view takeWord(std::string_view& line);

/// The number that the whole word stands for; none where anything else is in it.
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
