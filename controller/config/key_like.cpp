#include "config/key_like.h"

#include <algorithm>

namespace vesk::controller {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdefABCDEF";
constexpr std::string_view separators = ":-_. \t\r\n\v\f";
constexpr int fewestDigitsOfKey = 16;

bool isControlCharacter(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

}  // namespace

bool mayHoldKey(std::string_view text) {
    int digits = 0;
    for (const char c : text) {
        if (hexDigits.find(c) != std::string_view::npos) {
            ++digits;
        } else if (separators.find(c) == std::string_view::npos) {
            digits = 0;
        }
        if (digits >= fewestDigitsOfKey) {
            return true;
        }
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
