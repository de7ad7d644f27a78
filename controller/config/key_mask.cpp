#include "config/key_mask.h"

#include <algorithm>
#include <cstddef>

namespace vesk::controller {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdefABCDEF";
constexpr std::string_view separators = " \t\r\n\v\f:-_";
/// Not for text with addresses: an IPv4 address with its port may have 16 digits.
constexpr std::string_view separatorsInName = " \t\r\n\v\f:-_.";
constexpr std::size_t fewestDigits = 16;

bool contains(std::string_view characters, char c) {
    return characters.find(c) != std::string_view::npos;
}

/// Hex digits with nothing between them but separators.
struct Run {
    std::size_t begin = 0;
    std::size_t end = 0;  // after the last digit
    std::size_t digits = 0;

    bool mayBeKey() const { return digits >= fewestDigits; }
};

/// The first run of the text; an empty one at the end of a text without hex digits.
Run firstRun(std::string_view text, std::string_view between) {
    Run run;
    run.begin = std::min(text.find_first_of(hexDigits), text.size());
    run.end = run.begin;
    for (std::size_t i = run.begin; i < text.size(); ++i) {
        if (contains(hexDigits, text[i])) {
            ++run.digits;
            run.end = i + 1;
        } else if (!contains(between, text[i])) {
            break;
        }
    }
    return run;
}

bool isControlCharacter(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

}  // namespace

std::string maskKeyDigits(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Run run = firstRun(text, separators);
        result += text.substr(0, run.mayBeKey() ? run.begin : run.end);
        if (run.mayBeKey()) {
            result += "<key of " + std::to_string(run.digits) + " digits>";
        }
        text.remove_prefix(run.end);
    }
    return result;
}

bool mayHoldKey(std::string_view text) {
    while (!text.empty()) {
        const Run run = firstRun(text, separatorsInName);
        if (run.mayBeKey()) {
            return true;
        }
        text.remove_prefix(run.end);
    }
    return false;
}

std::string shownName(std::string_view text) {
    if (mayHoldKey(text)) {
        return "...";
    }
    std::string name(text);
    std::ranges::replace_if(name, isControlCharacter, '?');
    return name;
}

}  // namespace vesk::controller
