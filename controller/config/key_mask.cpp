#include "config/key_mask.h"

#include <cstddef>

namespace vesk::controller {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdefABCDEF";
constexpr std::string_view separators = " \t\r\n\v\f:-_";
constexpr std::size_t fewestDigits = 16;

bool isDigit(char c) {
    return hexDigits.find(c) != std::string_view::npos;
}

struct Run {
    std::size_t digits = 0;
    std::size_t length = 0;  // up to the last digit
};

/// The run of digits at the start of the text.
Run runAt(std::string_view text) {
    Run run;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isDigit(text[i])) {
            ++run.digits;
            run.length = i + 1;
        } else if (separators.find(text[i]) == std::string_view::npos) {
            break;
        }
    }
    return run;
}

}  // namespace

std::string maskKeyDigits(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        if (!isDigit(text.front())) {
            result += text.front();
            text.remove_prefix(1);
            continue;
        }
        const Run run = runAt(text);
        if (run.digits >= fewestDigits) {
            result += "<key of " + std::to_string(run.digits) + " digits>";
        } else {
            result += text.substr(0, run.length);
        }
        text.remove_prefix(run.length);
    }
    return result;
}

}  // namespace vesk::controller
