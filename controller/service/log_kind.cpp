#include "service/log_kind.h"

#include <algorithm>
#include <cstddef>

namespace vesk::controller {

namespace {

/// Lines of different kinds differ near their beginning.
constexpr std::size_t longestName = 256;

constexpr std::string_view decimalDigits = "0123456789";
/// The characters of numbers and addresses.
constexpr std::string_view numberCharacters = "0123456789abcdefABCDEFxX.:|";

bool isOneOf(char c, std::string_view characters) {
    return characters.find(c) != std::string_view::npos;
}

/// Independent of the locale.
bool isWordCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

std::size_t lengthOfWord(std::string_view text) {
    const auto end = std::ranges::find_if_not(text, isWordCharacter);
    return static_cast<std::size_t>(end - text.begin());
}

/// The length of the number or address at the beginning of the text, or 0. A word of hex letters
/// without a decimal digit is not a number.
std::size_t lengthOfNumber(std::string_view text) {
    const std::size_t length = std::min(text.find_first_not_of(numberCharacters), text.size());
    if (length < text.size() && isWordCharacter(text[length])) {
        return 0;
    }
    const std::string_view run = text.substr(0, length);
    if (!run.starts_with("::") && (run.empty() || !isWordCharacter(run.front()))) {
        return 0;
    }
    const bool number = run.find_first_of(decimalDigits) != std::string_view::npos ||
                        run.find("::") != std::string_view::npos;
    return number ? length : 0;
}

/// The word with each sequence of digits replaced by one "#".
std::string withoutDigits(std::string_view word) {
    std::string result;
    for (const char c : word) {
        if (!isOneOf(c, decimalDigits)) {
            result += c;
        } else if (!result.ends_with('#')) {
            result += '#';
        }
    }
    return result;
}

/// The label as written if one follows the word "label"; otherwise empty.
std::string_view labelBehind(std::string_view text) {
    if (text.empty() || !isOneOf(text.front(), " :")) {
        return {};
    }
    const std::size_t length = lengthOfWord(text.substr(1));
    const std::string_view number = text.substr(1, length);
    return number.empty() || !isOneOf(number.front(), decimalDigits) ? std::string_view() : number;
}

/// Takes the word at the beginning of the text, and a label after it; returns their length.
std::size_t takeWord(std::string_view text, std::size_t length, LogKind& kind) {
    const std::string_view word = text.substr(0, length);
    kind.name += withoutDigits(word);
    if (word != "label" && word != "Label") {
        return length;
    }
    const std::string_view label = labelBehind(text.substr(length));
    if (label.empty()) {
        return length;
    }
    kind.namesLabel = true;
    kind.name.append(" ").append(label);
    return length + 1 + label.size();
}

/// Takes a number, a word or one other character; returns its length.
std::size_t takePiece(std::string_view text, LogKind& kind) {
    if (const std::size_t number = lengthOfNumber(text); number > 0) {
        kind.name += '#';
        return number;
    }
    if (const std::size_t word = lengthOfWord(text); word > 0) {
        return takeWord(text, word, kind);
    }
    kind.name += text.front();
    return 1;
}

}  // namespace

LogKind logKindOf(LogLevel level, std::string_view text) {
    text = text.substr(0, longestName);
    LogKind kind{std::string(nameOf(level)) + " ", false};
    while (!text.empty()) {
        text.remove_prefix(takePiece(text, kind));
    }
    return kind;
}

}  // namespace vesk::controller
