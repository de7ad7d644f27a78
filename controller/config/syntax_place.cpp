#include "config/syntax_place.h"

#include <algorithm>
#include <utility>

#include "config/key_mask.h"

namespace vesk::controller {

namespace {

constexpr std::string_view lineBlanks = " \t\r";
constexpr std::string_view bareKeyCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(lineBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(lineBlanks) - first + 1);
}

/// Reads the beginning of a line and finds the key to which its end belongs.
class KeyPath {
 public:
    explicit KeyPath(std::string_view begin) {
        for (const char c : begin) {
            if (quote_ != '\0') {
                quote_ = c == quote_ ? '\0' : quote_;
            } else if (c == '#') {
                break;
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

}  // namespace

std::vector<std::string_view> firstLines(std::string_view text, std::size_t count) {
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

std::optional<std::string_view> tableNamedBy(std::string_view line) {
    line = trimmed(line);
    if (!line.starts_with('[')) {
        return std::nullopt;
    }
    line.remove_prefix(std::min(line.find_first_not_of('['), line.size()));
    return trimmed(line.substr(0, line.find(']')));
}

std::size_t endOfCharacters(std::string_view text, std::size_t count) {
    std::size_t end = 0;
    while (end < text.size()) {
        const bool continues = (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U;
        if (!continues && count-- == 0) {
            break;
        }
        ++end;
    }
    return end;
}

std::string placeOf(const std::vector<std::string_view>& lines, std::size_t column) {
    std::string place;
    for (auto line = lines.rbegin() + 1; line < lines.rend() && place.empty(); ++line) {
        if (const std::optional<std::string_view> table = tableNamedBy(*line)) {
            place = "table " + shownName(*table) + ", ";
        }
    }
    if (!tableNamedBy(lines.back())) {
        const std::string_view before =
            lines.back().substr(0, endOfCharacters(lines.back(), column - 1));
        const std::string key = KeyPath(before).text();
        // The name may be the first group of digits of a key.
        const bool mayBePiece = mayHoldKey(withoutQuotedTexts(lines.back()));
        const std::string shown = mayBePiece ? "..." : shownName(key);
        place += key.empty() ? "" : "key " + shown + ", ";
    }
    return place + "column " + std::to_string(column);
}

}  // namespace vesk::controller
