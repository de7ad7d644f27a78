#include "kernel/udp_errors.h"

#include "kernel/text_words.h"

namespace vesk::controller {

namespace {

using Figure = std::optional<std::uint64_t>;

/// Removes the text up to the next line that begins with the word; returns the rest of that line.
std::string_view takeLineOf(std::string_view& text, std::string_view word) {
    while (!text.empty()) {
        std::string_view line = takeLine(text);
        if (takeWord(line) == word) {
            return line;
        }
    }
    return {};
}

std::optional<BufferErrors> both(const Figure& receive, const Figure& send) {
    if (!receive || !send) {
        return std::nullopt;
    }
    return BufferErrors{*receive, *send};
}

}  // namespace

std::optional<BufferErrors> parseSnmp(std::string_view text) {
    std::string_view names = takeLineOf(text, "Udp:");
    std::string_view values = takeLineOf(text, "Udp:");
    Figure receive;
    Figure send;
    for (std::string_view name = takeWord(names); !name.empty(); name = takeWord(names)) {
        const Figure value = parseWord<std::uint64_t>(takeWord(values));
        if (name == "RcvbufErrors") {
            receive = value;
        } else if (name == "SndbufErrors") {
            send = value;
        }
    }
    return both(receive, send);
}

std::optional<BufferErrors> parseSnmp6(std::string_view text) {
    Figure receive;
    Figure send;
    while (!text.empty()) {
        std::string_view line = takeLine(text);
        const std::string_view name = takeWord(line);
        if (name == "Udp6RcvbufErrors") {
            receive = parseWord<std::uint64_t>(takeWord(line));
        } else if (name == "Udp6SndbufErrors") {
            send = parseWord<std::uint64_t>(takeWord(line));
        }
    }
    return both(receive, send);
}

}  // namespace vesk::controller
