#include "kernel/text_words.h"

#include <algorithm>

namespace vesk::controller {

std::string_view takeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    return line;
}

std::string_view takeWord(std::string_view& line) {
    constexpr std::string_view separators = " \t\n";
    line.remove_prefix(std::min(line.size(), line.find_first_not_of(separators)));
    const std::string_view word = line.substr(0, line.find_first_of(separators));
    line.remove_prefix(word.size());
    return word;
}

}  // namespace vesk::controller
